/** @file The devices, and their way from one version to the next. */
#ifndef BENCH_MODEL_FLEET_H
#define BENCH_MODEL_FLEET_H

#include "bench/model/catalogue.h"
#include "bench/model/queue.h"
#include "bench/model/schedule.h"
#include "bench/model/servers.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace tarn::fleet {

/** How a version spread. */
struct Spread {
	std::vector<std::uint32_t> reached;   ///< Devices that came from an older version to it or past it, by minute.
	std::vector<std::uint32_t> installed; ///< Devices that came to exactly it, by minute.
};

/** What devices did, by what kept them or what they took. */
struct Doings {
	std::uint64_t runs = 0;
	std::uint64_t unreachable = 0;      ///< Runs that reached no cache.
	std::uint64_t without_document = 0; ///< Runs for which no cache had a document.
	std::uint64_t failed = 0;           ///< Runs that got no package.
	std::uint64_t fresh_documents = 0;  ///< Runs that had a document of their own.
	std::uint64_t chains = 0;
	std::uint64_t diffs = 0;
	std::uint64_t fulls = 0;
	std::uint64_t missing = 0; ///< Packages that were asked for and no longer there.
	std::uint64_t chain_bytes = 0;
	std::uint64_t full_bytes = 0;
};

/** What became of the devices of one habit. */
struct Group {
	std::uint64_t devices = 0;
	std::uint64_t never = 0;     ///< Never ran.
	std::uint64_t week_long = 0; ///< Went without a run for seven days or longer.
	std::uint64_t runs = 0;
};

class Fleet {
public:
	explicit Fleet(const Parameters& parameters);

	/** Lives through the whole time. */
	void Run();

	[[nodiscard]] const Catalogue& Published() const { return catalogue_; }
	[[nodiscard]] const Tally& AtOrigin() const { return origin_.Counts(); }
	[[nodiscard]] const Tally& AtCaches() const { return at_caches_; }
	[[nodiscard]] const Tally& AtShield() const { return at_shield_; }
	[[nodiscard]] const Doings& Done() const { return doings_; }
	[[nodiscard]] const std::vector<Spread>& Spreads() const { return spreads_; }
	[[nodiscard]] std::vector<Group> Groups() const;
	/** How many devices had a version from the beginning, by channel. */
	[[nodiscard]] const std::vector<std::uint64_t>& Followers() const { return followers_; }

private:
	/** Small, because there are ten million. */
	struct Device {
		std::uint32_t document_milliseconds = 0;
		std::uint32_t last_run_second = 0;
		EditionNumber document = 0;
		Version version = kNothing;
		std::uint16_t runs = 0;
		std::uint8_t longest_gap_days = 0;
		bool has_document = false;
	};

	void Begin();
	void BeginDevice(std::uint32_t device);
	void Visit(std::uint32_t device, Moment time);
	void NoteRun(Device& state, Moment time) const;
	bool RenewDocument(std::uint32_t device, Device& state, Moment time);
	bool Install(Cache& cache, Device& state, Moment time);
	bool TakeChain(Cache& cache, const std::vector<PackageNumber>& chain, Moment time);
	bool TakePackage(Cache& cache, PackageNumber number, Moment time, std::uint64_t& bytes);
	void NoteInstalled(Version before, Version now, Moment time);
	[[nodiscard]] bool IsCutOff(std::uint32_t device, Moment time) const;
	[[nodiscard]] std::size_t ChannelOf(std::uint32_t device) const;
	Cache& CacheOf(std::uint32_t device);
	void MakeCaches();

	const Parameters& parameters_;
	Chance chance_;
	Schedule schedule_;
	Catalogue catalogue_;
	Origin origin_;
	Tally at_shield_;
	Tally at_caches_;
	std::unique_ptr<Cache> shield_;
	std::vector<std::unique_ptr<Cache>> caches_;
	std::vector<Device> devices_;
	std::vector<std::size_t> scripted_channels_;
	std::vector<std::uint64_t> followers_;
	Queue queue_;
	Doings doings_;
	std::vector<Spread> spreads_;
};

} // namespace tarn::fleet

#endif
