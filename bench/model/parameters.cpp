#include "bench/model/parameters.h"

#include "bench/model/members.h"

#include <cmath>
#include <stdexcept>

namespace tarn::fleet {

namespace {

TimerSettings ReadTimer(const Json::Value& json) {
	TimerSettings timer;
	Members members(json, "timer");
	members.TakeTime("period", timer.period);
	members.TakeTime("delay", timer.delay);
	members.Take("fixed_delay", timer.fixed_delay);
	members.TakeTime("accuracy", timer.accuracy);
	members.Take("persistent", timer.persistent);
	members.Finish();
	if (timer.period < kMinute || timer.accuracy < kSecond || timer.delay < 0) {
		throw std::invalid_argument("timer: a period below a minute, an accuracy below a second or a delay below 0");
	}
	return timer;
}

Habit ReadHabit(const Json::Value& json, const std::string& where) {
	Habit habit;
	Members members(json, where);
	members.Take("name", habit.name);
	members.TakeShare("share", habit.share);
	members.TakeTime("hours", habit.hours);
	members.TakeTime("begin", habit.begin);
	members.TakeTime("spread", habit.spread);
	members.TakeShare("days", habit.days);
	members.Take("resumes", habit.resumes);
	members.TakeShare("away_share", habit.away_share);
	members.TakeTime("away_length", habit.away_length);
	members.Finish();
	if (habit.hours < kMinute || habit.hours > kDay || habit.begin + habit.spread + habit.hours > 2 * kDay) {
		throw std::invalid_argument(where + " is on for less than a minute or beyond the next day");
	}
	return habit;
}

Zone ReadZone(const Json::Value& json, const std::string& where) {
	Zone zone;
	Members members(json, where);
	members.TakeShare("share", zone.share);
	members.TakeTime("offset", zone.offset);
	members.Finish();
	return zone;
}

CacheSettings ReadCaches(const Json::Value& json) {
	CacheSettings caches;
	Members members(json, "caches");
	members.TakeInteger("count", caches.count, 1);
	members.Take("keeps_documents", caches.keeps_documents);
	members.TakeInteger("document_seconds", caches.document_seconds);
	members.Take("shield", caches.shield);
	members.TakeInteger("shield_seconds", caches.shield_seconds);
	members.Take("lock", caches.lock);
	members.Take("stale_while_updating", caches.stale_while_updating);
	members.Take("stale_on_error", caches.stale_on_error);
	members.TakeTime("fetch", caches.fetch);
	members.Finish();
	return caches;
}

Channel ReadChannel(const Json::Value& json, const std::string& where) {
	Channel channel;
	Members members(json, where);
	members.Take("name", channel.name);
	members.TakeShare("share", channel.share);
	members.Finish();
	return channel;
}

DocumentSizes ReadDocument(const Json::Value& json) {
	DocumentSizes document;
	Members members(json, "document");
	members.TakeInteger("bytes", document.bytes);
	members.TakeInteger("bytes_each_diff", document.bytes_each_diff);
	members.TakeInteger("empty_diff_bytes", document.empty_diff_bytes);
	members.TakeInteger("most_diffs", document.most_diffs);
	members.Finish();
	return document;
}

Publication ReadPublication(const Json::Value& json, const std::string& where) {
	Publication publication;
	Members members(json, where);
	members.TakeChoice("change", publication.change,
	    {{"publish", Change::kPublish}, {"promote", Change::kPromote}, {"withdraw", Change::kWithdraw}});
	members.TakeTime("at", publication.at);
	members.Take("channel", publication.channel);
	members.Take("from", publication.from);
	members.TakeInteger("to", publication.to, -1);
	members.TakeInteger("full_bytes", publication.full_bytes);
	members.TakeInteger("diff_bytes", publication.diff_bytes);
	members.TakeInteger("document_bytes", publication.document_bytes, -1);
	members.Finish();
	return publication;
}

Outage ReadOutage(const Json::Value& json, const std::string& where) {
	Outage outage;
	Members members(json, where);
	members.TakeChoice("place", outage.place,
	    {{"origin", Place::kOrigin}, {"network", Place::kNetwork}, {"devices", Place::kDevices},
	        {"cache contents", Place::kCacheContents}});
	members.TakeTime("from", outage.span.begin);
	members.TakeTime("to", outage.span.end);
	members.TakeShare("share", outage.share);
	members.TakeTime("spread", outage.spread);
	members.Finish();
	return outage;
}

ScriptedRun ReadRun(const Json::Value& json, const std::string& where) {
	if (!json.isArray() || json.size() != 2 || !json[0].isNumeric() || !json[1].isUInt()) {
		throw std::invalid_argument(where + " is no pair of seconds and device");
	}
	return {std::llround(json[0].asDouble() * kSecond), json[1].asUInt()};
}

std::string ReadName(const Json::Value& json, const std::string& where) {
	if (!json.isString()) {
		throw std::invalid_argument(where + " is no text");
	}
	return json.asString();
}

template<typename Item>
void RequireWhole(const std::vector<Item>& list, const std::string& name) {
	double sum = 0;
	for (const Item& item : list) {
		sum += item.share;
	}
	constexpr double kRounding = 1e-6;
	if (std::abs(sum - 1) > kRounding) {
		throw std::invalid_argument("the shares of " + name + " are together " + std::to_string(sum) + ", not 1");
	}
}

void RequireFit(const Parameters& parameters) {
	RequireWhole(parameters.habits, "habits");
	RequireWhole(parameters.zones, "zones");
	RequireWhole(parameters.channels, "channels");
	constexpr Moment kLongest = 45 * kDay;
	if (parameters.length < kSecond || parameters.length > kLongest) {
		throw std::invalid_argument("length is not from a second to 45 days");
	}
	for (const ScriptedRun& run : parameters.script) {
		if (run.device >= parameters.devices || run.at < 0 || run.at >= parameters.length) {
			throw std::invalid_argument("script: a run of device " + std::to_string(run.device) + " at " +
			                            std::to_string(run.at) + " ms, which is not in the fleet or not in its time");
		}
	}
}

} // namespace

Parameters ReadParameters(const Json::Value& json) {
	Parameters result;
	Members members(json, "parameters");
	members.TakeInteger("seed", result.seed);
	members.TakeInteger("devices", result.devices, 1);
	members.TakeTime("length", result.length);
	members.TakeShare("joining_share", result.joining_share);
	members.TakeInteger("device_document_seconds", result.device_document_seconds);
	const auto part = [&members](const char* name) -> const Json::Value& {
		static const Json::Value nothing(Json::objectValue);
		const Json::Value* found = members.Find(name);
		return found == nullptr ? nothing : *found;
	};
	result.timer = ReadTimer(part("timer"));
	result.caches = ReadCaches(part("caches"));
	result.document = ReadDocument(part("document"));
	members.TakeList("habits", result.habits, ReadHabit);
	members.TakeList("zones", result.zones, ReadZone);
	members.TakeList("channels", result.channels, ReadChannel);
	members.TakeList("publications", result.publications, ReadPublication);
	members.TakeList("outages", result.outages, ReadOutage);
	members.TakeList("script", result.script, ReadRun);
	members.TakeList("channel_of", result.channel_of, ReadName);
	members.TakeInteger("begin_milliseconds", result.begin_milliseconds);
	members.TakeTime("detail_from", result.detail.begin);
	members.TakeTime("detail_to", result.detail.end);
	members.Finish();
	RequireFit(result);
	return result;
}

} // namespace tarn::fleet
