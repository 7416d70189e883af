/** @file Reading an object of a parameter file. */
#ifndef BENCH_MODEL_MEMBERS_H
#define BENCH_MODEL_MEMBERS_H

#include "bench/model/parameters.h"

#include <json/value.h>

#include <cmath>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarn::fleet {

/** Reads the members of an object, and complains of those that nobody has asked for. */
class Members {
public:
	Members(const Json::Value& json, std::string where) : json_(json), where_(std::move(where)) {
		if (!json_.isObject()) {
			throw std::invalid_argument(where_ + " is no object");
		}
	}

	const Json::Value* Find(const std::string& name) {
		known_.insert(name);
		return json_.isMember(name) ? &json_[name] : nullptr;
	}

	void Take(const std::string& name, double& value) {
		const Json::Value* found = Find(name);
		if (found == nullptr) {
			return;
		}
		if (!found->isNumeric() || !std::isfinite(found->asDouble())) {
			throw std::invalid_argument(where_ + "." + name + " is no number");
		}
		value = found->asDouble();
	}

	void Take(const std::string& name, bool& value) {
		const Json::Value* found = Find(name);
		if (found != nullptr && !found->isBool()) {
			throw std::invalid_argument(where_ + "." + name + " is neither true nor false");
		}
		value = found == nullptr ? value : found->asBool();
	}

	void Take(const std::string& name, std::string& value) {
		const Json::Value* found = Find(name);
		if (found != nullptr && !found->isString()) {
			throw std::invalid_argument(where_ + "." + name + " is no text");
		}
		value = found == nullptr ? value : found->asString();
	}

	template<typename Integer>
	void TakeInteger(const std::string& name, Integer& value, double least = 0) {
		auto number = static_cast<double>(value);
		Take(name, number);
		constexpr double kMost = 0x1p53;
		if (number != std::floor(number) || number < least || number > kMost) {
			throw std::invalid_argument(where_ + "." + name + " is no whole number from " + std::to_string(least));
		}
		value = static_cast<Integer>(number);
	}

	/** Seconds in the file. */
	void TakeTime(const std::string& name, Moment& value) {
		double seconds = static_cast<double>(value) / kSecond;
		Take(name, seconds);
		value = std::llround(seconds * kSecond);
	}

	void TakeShare(const std::string& name, double& value) {
		Take(name, value);
		if (value < 0 || value > 1) {
			throw std::invalid_argument(where_ + "." + name + " is not from 0 to 1");
		}
	}

	template<typename Item, typename Read>
	void TakeList(const std::string& name, std::vector<Item>& list, const Read& read) {
		const Json::Value* found = Find(name);
		if (found == nullptr) {
			return;
		}
		if (!found->isArray()) {
			throw std::invalid_argument(where_ + "." + name + " is no list");
		}
		for (const Json::Value& item : *found) {
			list.push_back(read(item, where_ + "." + name + "[" + std::to_string(list.size()) + "]"));
		}
	}

	template<typename Choice>
	void TakeChoice(const std::string& name, Choice& value, const std::map<std::string, Choice>& choices) {
		std::string text;
		Take(name, text);
		const auto found = choices.find(text);
		if (found == choices.end()) {
			throw std::invalid_argument(where_ + "." + name + " cannot be \"" + text + "\"");
		}
		value = found->second;
	}

	void Finish() const {
		for (const std::string& name : json_.getMemberNames()) {
			if (known_.count(name) == 0) {
				throw std::invalid_argument(where_ + "." + name + " is unknown");
			}
		}
	}

private:
	const Json::Value& json_;
	std::string where_;
	std::set<std::string> known_;
};

} // namespace tarn::fleet

#endif
