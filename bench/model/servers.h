/** @file The origin, and caches in front of it. */
#ifndef BENCH_MODEL_SERVERS_H
#define BENCH_MODEL_SERVERS_H

#include "bench/model/catalogue.h"
#include "bench/model/parameters.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace tarn::fleet {

/** What is asked for: the document of a channel, or a package. */
struct Target {
	bool is_document = true;
	std::uint16_t number = 0;
};

enum class Status { kOk, kNotFound, kUnreachable };

struct Answer {
	Status status = Status::kOk;
	EditionNumber edition = 0;
	std::uint64_t bytes = 0; ///< Of the body.
	Moment ready = 0;
};

/** Counts for each second and minute. */
class Tally {
public:
	explicit Tally(Moment length);
	void Count(Moment time, std::uint64_t bytes);

	[[nodiscard]] const std::vector<std::uint32_t>& Seconds() const { return seconds_; }
	[[nodiscard]] const std::vector<std::uint32_t>& Minutes() const { return minutes_; }
	[[nodiscard]] const std::vector<std::uint64_t>& MinuteBytes() const { return minute_bytes_; }
	[[nodiscard]] std::uint64_t Requests() const { return requests_; }
	[[nodiscard]] std::uint64_t Bytes() const { return bytes_; }

private:
	std::vector<std::uint32_t> seconds_;
	std::vector<std::uint32_t> minutes_;
	std::vector<std::uint64_t> minute_bytes_;
	std::uint64_t requests_ = 0;
	std::uint64_t bytes_ = 0;
};

class Server {
public:
	Server() = default;
	Server(const Server&) = delete;
	Server& operator=(const Server&) = delete;
	virtual ~Server() = default;

	/** Questions come in the order of their time. */
	virtual Answer Ask(const Target& target, Moment time) = 0;
};

/** The update server. What it counts are requests that reach it. */
class Origin : public Server {
public:
	Origin(const Parameters& parameters, const Catalogue& catalogue)
	    : parameters_(parameters), catalogue_(catalogue), tally_(parameters.length) {}

	Answer Ask(const Target& target, Moment time) override;
	[[nodiscard]] const Tally& Counts() const { return tally_; }

private:
	[[nodiscard]] bool IsDown(Moment time) const;
	[[nodiscard]] Answer Find(const Target& target, Moment time) const;

	const Parameters& parameters_;
	const Catalogue& catalogue_;
	Tally tally_;
};

/** A caching proxy as the example for nginx configures it. */
class Cache : public Server {
public:
	/** The tally may be shared with other caches. A clock that began within a second lets entries expire as nginx does,
	 * by whole seconds. */
	Cache(
	    const Parameters& parameters, const Catalogue& catalogue, Server& upstream, Tally& tally, std::int64_t seconds);

	Answer Ask(const Target& target, Moment time) override;

private:
	struct Entry {
		bool has_content = false;
		bool had_content = false;
		Answer content;
		Answer before;                ///< What was there while the content is being fetched.
		Moment fetched = 0;           ///< When the fetch ends, or ended.
		std::int64_t last_second = 0; ///< The last second of the content's life.
	};

	Answer Find(const Target& target, Moment time);
	Answer Fetch(Entry& entry, const Target& target, Moment time);
	[[nodiscard]] bool IsFresh(const Entry& entry, Moment time) const;
	[[nodiscard]] std::int64_t SecondOf(Moment time) const;
	Entry& EntryOf(const Target& target);
	void LoseContents(Moment time);

	const Parameters& parameters_;
	Server& upstream_;
	Tally& tally_;
	std::int64_t document_seconds_;
	std::vector<Entry> documents_;
	std::vector<Entry> packages_;
	Moment emptied_ = -1;
};

} // namespace tarn::fleet

#endif
