/** @file What the publisher has published at any moment: a document for each channel, and packages. */
#ifndef BENCH_MODEL_CATALOGUE_H
#define BENCH_MODEL_CATALOGUE_H

#include "bench/model/parameters.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::fleet {

using Version = std::uint16_t;
using PackageNumber = std::uint16_t;
using EditionNumber = std::uint16_t;

/** What is not installed has version 0. */
constexpr Version kNothing = 0;

struct Package {
	std::string name;
	std::uint64_t bytes = 0;
	Span there = {0, 0}; ///< While the origin has it.
};

/** A document as it is from one publication to the next. */
struct Edition {
	Moment from = 0;
	Version newest = kNothing;
	PackageNumber full = 0;
	Version oldest_diff = 0;          ///< The version that the first diff package leads to.
	std::vector<PackageNumber> diffs; ///< To that version, to the next one and so on, to the newest.
	std::uint64_t bytes = 0;

	/** The packages that lead on from a version; empty where there is no chain. */
	[[nodiscard]] std::vector<PackageNumber> ChainFrom(Version installed) const;
};

struct Withdrawal {
	Moment at = 0;
	Version first = 0; ///< Of the versions that were withdrawn.
	Version last = 0;
};

class Catalogue {
public:
	/** Throws std::invalid_argument for a publication that the publisher would refuse. */
	explicit Catalogue(const Parameters& parameters);

	[[nodiscard]] std::size_t ChannelNumber(const std::string& name) const;
	/** The number of the edition that a channel's document has at a moment; none before the first publication. */
	[[nodiscard]] std::optional<EditionNumber> EditionAt(std::size_t channel, Moment time) const;
	[[nodiscard]] const Edition& EditionOf(EditionNumber number) const { return editions_[number]; }
	[[nodiscard]] const std::vector<Package>& Packages() const { return packages_; }
	[[nodiscard]] const std::vector<Withdrawal>& Withdrawals() const { return withdrawals_; }
	[[nodiscard]] Version LastVersion() const { return last_; }
	/** When a version was first named by a channel's document; kNever if it never was. */
	[[nodiscard]] Moment OfferedAt(std::size_t channel, Version version) const;

private:
	void Publish(const Publication& what);
	void Promote(const Publication& what);
	void Withdraw(const Publication& what);
	[[nodiscard]] Edition Current(const std::string& channel) const;
	PackageNumber Add(std::string name, std::uint64_t bytes, Moment at);
	void Trim(Edition& edition) const;
	void Show(const Publication& what, Edition edition);
	void RemoveUnnamed(Moment at);

	const Parameters& parameters_;
	std::vector<Package> packages_;
	std::vector<Edition> editions_;
	std::vector<std::vector<EditionNumber>> channels_; ///< By channel, in the order of time.
	std::vector<Withdrawal> withdrawals_;
	Version last_ = kNothing;
};

} // namespace tarn::fleet

#endif
