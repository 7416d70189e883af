/** @file Plots as inline SVG. */
#ifndef PUBLISHER_SITE_PLOT_H
#define PUBLISHER_SITE_PLOT_H

#include "publisher/site/markup.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::publisher::site {

/** Sizes over whole numbers, in ascending order of these. */
struct Series {
	struct Point {
		int at = 0;
		std::uint64_t bytes = 0;
	};
	std::string name;
	const char* style = ""; // the class that gives it a colour
	std::vector<Point> points;
	bool is_level = false; // one line through all points, without marks
};

struct Plot {
	std::string id; // of the element, unique in the page
	std::string title;
	std::string description; // said below it, and to a person who cannot see it
	std::string across;      // what the numbers are
	std::string up;          // what the sizes are
	std::vector<Series> series;
	bool is_logarithmic = false;
};

/**
 * Draws a plot with its legend. Has a bounded number of points, whatever the series hold: of those in one place the
 * largest is drawn. A line is broken where numbers are missing.
 */
void Draw(const Plot& plot, Markup& page);

} // namespace tarn::publisher::site

#endif
