/** @file What a simulation is told: the fleet, its timers, the caches, and what happens on the way. */
#ifndef BENCH_MODEL_PARAMETERS_H
#define BENCH_MODEL_PARAMETERS_H

#include <json/value.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace tarn::fleet {

/** Milliseconds since the simulation began, at midnight UTC. */
using Moment = std::int64_t;

constexpr Moment kSecond = 1000;
constexpr Moment kMinute = 60 * kSecond;
constexpr Moment kHour = 60 * kMinute;
constexpr Moment kDay = 24 * kHour;
constexpr Moment kNever = std::numeric_limits<Moment>::max();

/** From a moment to the moment before another one. */
struct Span {
	Moment begin = 0;
	Moment end = 0;

	[[nodiscard]] bool Holds(Moment time) const { return begin <= time && time < end; }
};

/** A systemd timer with OnCalendar= every so often, counted from midnight of the device. */
struct TimerSettings {
	Moment period = kDay;
	Moment delay = 0;          ///< RandomizedDelaySec=
	bool fixed_delay = false;  ///< FixedRandomDelay=
	Moment accuracy = kMinute; ///< AccuracySec=
	bool persistent = true;    ///< Persistent=
};

/** When a kind of device is on. */
struct Habit {
	std::string name;
	double share = 1;
	Moment hours = kDay;   ///< On for so long each day; a whole day: never off but while away.
	Moment begin = 0;      ///< Local time of the beginning.
	Moment spread = 0;     ///< The beginning is as much later on some days.
	double days = 1;       ///< Share of the days on which it is on at all.
	bool resumes = false;  ///< Sleeps and wakes, so that an elapsed timer fires at once; else it boots.
	double away_share = 0; ///< Share of the devices that are off once, for the mean length below.
	Moment away_length = 0;
};

struct Zone {
	double share = 1;
	Moment offset = 0;
};

struct CacheSettings {
	std::uint32_t count = 1;
	bool keeps_documents = true;
	std::int64_t document_seconds = 0;
	bool shield = false; ///< All caches ask one more cache, and that one asks the origin.
	std::int64_t shield_seconds = 0;
	bool lock = true;                 ///< proxy_cache_lock
	bool stale_while_updating = true; ///< proxy_cache_use_stale updating
	bool stale_on_error = true;       ///< proxy_cache_use_stale error timeout
	Moment fetch = 0;                 ///< What a request upstream takes.
};

struct Channel {
	std::string name;
	double share = 1;
};

enum class Change { kPublish, kPromote, kWithdraw };

/** What the publisher does. */
struct Publication {
	Change change = Change::kPublish;
	Moment at = 0;
	std::string channel; ///< Which document changes.
	std::string from;    ///< The channel that is promoted.
	int to = -1;         ///< The version that a withdrawal goes back to.
	std::uint64_t full_bytes = 0;
	std::uint64_t diff_bytes = 0;     ///< 0: there is no diff package.
	std::int64_t document_bytes = -1; ///< -1: by the sizes below.
};

struct DocumentSizes {
	std::uint64_t bytes = 0;
	std::uint64_t bytes_each_diff = 0;
	std::uint64_t empty_diff_bytes = 0;
	std::uint64_t most_diffs = 100;
};

enum class Place { kOrigin, kNetwork, kDevices, kCacheContents };

/** Something is down: the origin, the way to the caches, the devices themselves; or the caches lose what they have. */
struct Outage {
	Place place = Place::kOrigin;
	Span span;
	double share = 1;  ///< Of the devices.
	Moment spread = 0; ///< Devices come back within this time.
};

/** A device that runs at a given moment, in place of timers. */
struct ScriptedRun {
	Moment at = 0;
	std::uint32_t device = 0;
};

struct Parameters {
	std::uint64_t seed = 1;
	std::uint32_t devices = 1000;
	Moment length = 30 * kDay;
	double joining_share = 0; ///< Devices that come without data at some moment.
	std::int64_t device_document_seconds = 3600;
	TimerSettings timer;
	std::vector<Habit> habits;
	std::vector<Zone> zones;
	CacheSettings caches;
	std::vector<Channel> channels;
	DocumentSizes document;
	std::vector<Publication> publications;
	std::vector<Outage> outages;
	std::vector<ScriptedRun> script;
	std::vector<std::string> channel_of; ///< With a script: the channel of each device.
	std::int64_t begin_milliseconds = 0; ///< With a script: where in its second the clock stood at the beginning.
	Span detail;                         ///< Of which the results have every minute.
};

/** Throws std::invalid_argument that names the member at fault, also for a member that nothing reads. */
Parameters ReadParameters(const Json::Value& json);

} // namespace tarn::fleet

#endif
