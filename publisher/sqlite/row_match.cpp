#include "publisher/sqlite/row_match.h"

#include <algorithm>

namespace tarn::publisher {

namespace {

/** The places of rows that are not matched yet, those of one hash together and in order. */
std::vector<std::size_t> ByHash(
    const RowPrints& prints, const std::vector<std::size_t>& matches, std::uint64_t RowPrint::*hash) {
	std::vector<std::size_t> places;
	for (std::size_t i = 0; i < prints.size(); ++i) {
		if (matches[i] == kNoRow && prints[i].*hash != 0) {
			places.push_back(i);
		}
	}
	std::sort(places.begin(), places.end(), [&](std::size_t left, std::size_t right) {
		return prints[left].*hash != prints[right].*hash ? prints[left].*hash < prints[right].*hash : left < right;
	});
	return places;
}

} // namespace

RowMatch::RowMatch(const RowPrints& before, const RowPrints& after, const Likeness& likeness)
    : before_(before),
      after_(after),
      after_of_(before.size(), kNoRow),
      before_of_(after.size(), kNoRow),
      in_order_(before.size(), false) {
	MatchEqual(&RowPrint::content);
	Extend();
	MatchEqual(&RowPrint::key);
	FindOrder();
	MatchBetween(likeness);
}

void RowMatch::Match(std::size_t before, std::size_t after) {
	after_of_[before] = after;
	before_of_[after] = before;
}

void RowMatch::MatchEqual(std::uint64_t RowPrint::*hash) {
	const std::vector<std::size_t> left = ByHash(before_, after_of_, hash);
	const std::vector<std::size_t> right = ByHash(after_, before_of_, hash);
	const auto end_of = [hash](const RowPrints& prints, const std::vector<std::size_t>& places, std::size_t from) {
		std::size_t end = from;
		while (end < places.size() && prints[places[end]].*hash == prints[places[from]].*hash) {
			++end;
		}
		return end;
	};
	for (std::size_t i = 0, j = 0; i < left.size() && j < right.size();) {
		const std::uint64_t one = before_[left[i]].*hash;
		const std::uint64_t other = after_[right[j]].*hash;
		const std::size_t i_end = one <= other ? end_of(before_, left, i) : i;
		const std::size_t j_end = other <= one ? end_of(after_, right, j) : j;
		// Of several equal rows nobody knows which is gone; their neighbours tell it later.
		const bool is_pair = one == other && i_end - i == j_end - j;
		for (std::size_t k = 0; is_pair && k < i_end - i; ++k) {
			Match(left[i + k], right[j + k]);
		}
		i = i_end;
		j = j_end;
	}
}

bool RowMatch::CanExtend(std::size_t before, std::size_t after) const {
	return before < before_.size() && after < after_.size() && after_of_[before] == kNoRow &&
	       before_of_[after] == kNoRow && before_[before].content == after_[after].content;
}

void RowMatch::Extend() {
	if (CanExtend(0, 0)) {
		Match(0, 0);
	}
	for (std::size_t i = 0; i + 1 < before_.size(); ++i) {
		if (after_of_[i] != kNoRow && CanExtend(i + 1, after_of_[i] + 1)) {
			Match(i + 1, after_of_[i] + 1);
		}
	}
	for (std::size_t i = before_.size(); i-- > 1;) {
		if (after_of_[i] != kNoRow && after_of_[i] > 0 && CanExtend(i - 1, after_of_[i] - 1)) {
			Match(i - 1, after_of_[i] - 1);
		}
	}
}

/** Marks a longest sequence of rows that are in the same order in both tables. */
void RowMatch::FindOrder() {
	std::vector<std::size_t> ends;                             // the row that ends the best sequence of each length
	std::vector<std::size_t> previous(before_.size(), kNoRow); // in that sequence
	for (std::size_t i = 0; i < before_.size(); ++i) {
		if (after_of_[i] == kNoRow) {
			continue;
		}
		const auto place = std::lower_bound(ends.begin(), ends.end(), after_of_[i],
		    [this](std::size_t end, std::size_t after) { return after_of_[end] < after; });
		previous[i] = place == ends.begin() ? kNoRow : *(place - 1);
		if (place == ends.end()) {
			ends.push_back(i);
		} else {
			*place = i;
		}
	}
	for (std::size_t i = ends.empty() ? kNoRow : ends.back(); i != kNoRow; i = previous[i]) {
		in_order_[i] = true;
	}
}

void RowMatch::MatchBetween(const Likeness& likeness) {
	std::size_t next_after = 0;
	std::vector<std::size_t> left;
	const auto end_gap = [&](std::size_t end) {
		std::vector<std::size_t> right;
		for (; next_after < end; ++next_after) {
			if (before_of_[next_after] == kNoRow) {
				right.push_back(next_after);
			}
		}
		MatchGap(left, right, likeness);
		left.clear();
		next_after = end + 1;
	};
	for (std::size_t i = 0; i < before_.size(); ++i) {
		if (in_order_[i]) {
			end_gap(after_of_[i]);
		} else if (after_of_[i] == kNoRow) {
			left.push_back(i);
		}
	}
	end_gap(after_.size());
}

/** Finds pairs, in order, that have the most in common. */
void RowMatch::MatchGap(
    const std::vector<std::size_t>& left, const std::vector<std::size_t>& right, const Likeness& likeness) {
	constexpr std::size_t kMostPairs = 4096; // whoever changes more has made another table
	const std::size_t width = right.size() + 1;
	if (left.empty() || right.empty() || left.size() * right.size() > kMostPairs) {
		return;
	}
	std::vector<std::size_t> like(left.size() * right.size());
	std::vector<std::size_t> best((left.size() + 1) * width, 0); // of what begins at a pair
	for (std::size_t i = left.size(); i-- > 0;) {
		for (std::size_t j = right.size(); j-- > 0;) {
			const std::size_t same = like[i * right.size() + j] = likeness(left[i], right[j]);
			best[i * width + j] = std::max({best[(i + 1) * width + j], best[i * width + j + 1],
			    same > 0 ? same + best[(i + 1) * width + j + 1] : 0});
		}
	}
	for (std::size_t i = 0, j = 0; i < left.size() && j < right.size();) {
		const std::size_t same = like[i * right.size() + j];
		if (same > 0 && best[i * width + j] == same + best[(i + 1) * width + j + 1]) {
			in_order_[left[i]] = true;
			Match(left[i++], right[j++]);
		} else {
			++(best[i * width + j] == best[(i + 1) * width + j] ? i : j);
		}
	}
}

} // namespace tarn::publisher
