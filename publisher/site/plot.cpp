#include "publisher/site/plot.h"

#include "base/text.h"

#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace tarn::publisher::site {

namespace {

constexpr double kWidth = 420;
constexpr double kHeight = 236;
constexpr double kLeft = 62;
constexpr double kRight = 24;
constexpr double kTop = 26;
constexpr double kBottom = 46;
constexpr double kRowHeight = 4; // below what an axis begins: half the height of a digit
constexpr std::size_t kMostMarks = 40;
constexpr double kMostSteps = 5;

std::string Number(double value) {
	std::array<char, 32> text{};
	std::snprintf(text.data(), text.size(), "%.1f", value);
	return text.data();
}

/** "20 kB" rather than "20.0 kB". */
std::string RoundSize(std::uint64_t bytes) {
	return boost::algorithm::replace_first_copy(HumanSize(bytes), ".0 ", " ");
}

/** Where on the paper, from one place to another, a value is that lies between two. */
double Place(double value, double low, double high, double from, double to) {
	return high > low ? from + (value - low) / (high - low) * (to - from) : (from + to) / 2;
}

/** The smallest of 1, 2, 5, 10, 20 ... that is not below a value. */
double RoundedUp(double value) {
	const double power = std::pow(10, std::floor(std::log10(value)));
	for (const double step : {1.0, 2.0, 5.0}) {
		if (power * step >= value) {
			return power * step;
		}
	}
	return power * 10;
}

class Drawing {
public:
	Drawing(const Plot& plot, Markup& page) : plot_(plot), page_(page) { Measure(); }

	void Run() {
		page_.Begin("figure").Line();
		DrawLegend();
		page_.Begin("svg", {{"viewBox", "0 0 " + Number(kWidth) + " " + Number(kHeight)}, {"role", "img"},
		                       {"aria-labelledby", plot_.id + "-title " + plot_.id + "-text"}});
		page_.Leaf("title", {{"id", plot_.id + "-title"}}, plot_.title);
		page_.Leaf("desc", {{"id", plot_.id + "-text"}}, plot_.description).Line();
		DrawSizes();
		DrawNumbers();
		for (const Series& series : plot_.series) {
			DrawSeries(series);
		}
		page_.End().Line();
		page_.Leaf("p", {{"class", "note"}}, plot_.description).End().Line();
	}

private:
	void Measure() {
		std::uint64_t most = 1;
		std::uint64_t least = 0;
		bool is_first = true;
		for (const Series& series : plot_.series) {
			for (const Series::Point& point : series.points) {
				first_ = is_first ? point.at : std::min(first_, point.at);
				last_ = is_first ? point.at : std::max(last_, point.at);
				least = is_first ? point.bytes : std::min(least, point.bytes);
				most = std::max(most, point.bytes);
				is_first = false;
			}
		}
		top_ = static_cast<double>(most);
		if (plot_.is_logarithmic) {
			lowest_ = std::floor(std::log10(std::max<double>(static_cast<double>(least), 1)));
			highest_ = std::max(std::ceil(std::log10(top_)), lowest_ + 1);
		} else {
			step_ = std::max(RoundedUp(top_ / kMostSteps), 1.0);
			top_ = std::ceil(top_ / step_) * step_;
		}
	}

	double X(int at) const { return Place(at, first_, last_, kLeft + kRowHeight, kWidth - kRight); }
	double Y(double bytes) const {
		const double bottom = kHeight - kBottom;
		return plot_.is_logarithmic ? Place(std::log10(std::max(bytes, 1.0)), lowest_, highest_, bottom, kTop)
		                            : Place(bytes, 0, top_, bottom, kTop);
	}

	/** Where the lines across are. */
	std::vector<double> Ticks() const {
		const double low = plot_.is_logarithmic ? lowest_ : 0;
		const double high = plot_.is_logarithmic ? highest_ : top_;
		const double step = plot_.is_logarithmic ? std::ceil((highest_ - lowest_) / kMostSteps) : step_;
		const int count = static_cast<int>((high - low) / step);
		std::vector<double> ticks;
		for (int i = 0; i <= count; ++i) {
			ticks.push_back(plot_.is_logarithmic ? std::pow(10, low + i * step) : low + i * step);
		}
		return ticks;
	}

	void DrawSizes() {
		constexpr double kWordsAbove = 12;
		page_.Begin("g", {{"class", "axis"}});
		page_.Leaf("text", {{"x", "0"}, {"y", Number(kWordsAbove)}}, plot_.up);
		for (const double bytes : Ticks()) {
			const std::string y = Number(Y(bytes));
			page_.Empty("path", {{"d", "M" + Number(kLeft) + " " + y + "H" + Number(kWidth - kRight)}});
			page_.Leaf("text",
			    {{"x", Number(kLeft - kRowHeight)}, {"y", Number(Y(bytes) + kRowHeight)}, {"text-anchor", "end"}},
			    RoundSize(static_cast<std::uint64_t>(bytes)));
		}
		page_.End().Line();
	}

	/** The numbers below the plot. */
	std::vector<int> RoundNumbers() const {
		constexpr double kMostParts = 4; // for eight digits each
		const auto range = static_cast<double>(std::int64_t{last_} - first_);
		const auto step = static_cast<std::int64_t>(std::max(RoundedUp(range / kMostParts), 1.0));
		std::vector<int> numbers;
		for (std::int64_t number = (first_ + step - 1) / step * step; number <= last_; number += step) {
			numbers.push_back(static_cast<int>(number));
		}
		return numbers.empty() ? std::vector{first_} : numbers;
	}

	void DrawNumbers() {
		constexpr double kNumbersBelow = 20;
		constexpr double kWordsBelow = 38;
		page_.Begin("g", {{"class", "axis"}});
		for (const int number : RoundNumbers()) {
			page_.Leaf("text",
			    {{"x", Number(X(number))}, {"y", Number(kHeight - kBottom + kNumbersBelow)}, {"text-anchor", "middle"}},
			    std::to_string(number));
		}
		page_.Leaf("text",
		    {{"x", Number((kLeft + kWidth - kRight) / 2)}, {"y", Number(kHeight - kBottom + kWordsBelow)},
		        {"text-anchor", "middle"}},
		    plot_.across);
		page_.End().Line();
	}

	/** The points of a series, of those in one place the largest. */
	std::vector<Series::Point> Visible(const Series& series) const {
		std::vector<Series::Point> points;
		for (const Series::Point& point : series.points) {
			const bool is_same = !points.empty() && X(point.at) - X(points.back().at) < 1;
			if (!is_same) {
				points.push_back(point);
			} else {
				points.back().bytes = std::max(points.back().bytes, point.bytes);
			}
		}
		return points;
	}

	/** How far apart points may be that a line joins: numbers that follow each other, or what is drawn in one place. */
	double LongestStep() const {
		constexpr double kPlaces = 2.5;
		return last_ > first_ ? std::max(X(first_ + 1) - X(first_), kPlaces) * 1.01 : 0; // for rounding
	}

	void DrawSeries(const Series& series) {
		const std::vector<Series::Point> points = Visible(series);
		std::string path;
		double before = -2 * kWidth; // further than any line reaches
		for (const Series::Point& point : points) {
			const double x = X(point.at);
			const bool goes_on = x - before <= (series.is_level ? kWidth : LongestStep());
			path += (goes_on ? "L" : "M") + Number(x) + " " + Number(Y(static_cast<double>(point.bytes)));
			path += goes_on ? "" : "h0"; // so that a point alone is drawn as well
			before = x;
		}
		page_.Begin("g", {{"class", series.style}}).Empty("path", {{"d", path}}).Line();
		if (series.points.size() <= kMostMarks && !series.is_level) {
			DrawMarks(series, points);
		}
		page_.End().Line();
	}

	void DrawMarks(const Series& series, const std::vector<Series::Point>& points) {
		for (const Series::Point& point : points) {
			page_.Begin("circle",
			    {{"cx", Number(X(point.at))}, {"cy", Number(Y(static_cast<double>(point.bytes)))}, {"r", "3"}});
			page_.Leaf("title",
			    series.name + ", " + plot_.across + " " + std::to_string(point.at) + ": " + HumanSize(point.bytes));
			page_.End();
		}
	}

	void DrawLegend() {
		page_.Begin("figcaption").Say(plot_.title).Begin("ul", {{"class", "legend"}});
		for (const Series& series : plot_.series) {
			if (!series.points.empty()) {
				page_.Leaf("li", {{"class", series.style}}, series.name);
			}
		}
		page_.End().End().Line();
	}

	const Plot& plot_;
	Markup& page_;
	int first_ = 0;
	int last_ = 0;
	double top_ = 1;
	double step_ = 1;   // between lines across
	double lowest_ = 0; // powers of ten
	double highest_ = 1;
};

} // namespace

void Draw(const Plot& plot, Markup& page) {
	Drawing(plot, page).Run();
}

} // namespace tarn::publisher::site
