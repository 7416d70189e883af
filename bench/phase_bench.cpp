// Runs one full update through the library and prints, as JSON, how long it took and what it spent the time on.
//
// phase_bench ID VERSION LINK VOLUME INSTALL_DIRECTORY

#include "dataupdate/progress.h"
#include "dataupdate/update_error.h"
#include "dataupdate/updater.h"

#include <json/writer.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <thread>

using tarn::dataupdate::Phase;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

namespace {

constexpr std::array<const char*, 5> kNames = {"other", "download", "check_and_unpack", "apply", "hash"};

/** Looks every tenth of a millisecond what the library is doing, and adds the time up. */
class Sampler {
public:
	Sampler() : thread_([this] { Run(); }) {}
	~Sampler() { Stop(); }
	Sampler(const Sampler&) = delete;
	Sampler& operator=(const Sampler&) = delete;

	void Stop() {
		stop_ = true;
		if (thread_.joinable()) {
			thread_.join();
		}
	}

	[[nodiscard]] double Spent(std::size_t phase) const { return spent_.at(phase).count(); }

private:
	void Run() {
		auto last = Clock::now();
		while (!stop_) {
			std::this_thread::sleep_for(std::chrono::microseconds(100));
			const auto now = Clock::now();
			spent_.at(static_cast<std::size_t>(tarn::dataupdate::CurrentActivity().phase)) += now - last;
			last = now;
		}
	}

	std::array<Seconds, kNames.size()> spent_{};
	std::atomic<bool> stop_{false};
	std::thread thread_;
};

Json::Value Measure(char** arguments) {
	const tarn::dataupdate::RemoteInfo remote(std::atoi(arguments[2]), 0, false, arguments[3]);
	Sampler sampler;
	const auto begin = Clock::now();
	const auto status =
	    tarn::dataupdate::Updater().Update(arguments[1], {}, remote, {}, arguments[4], arguments[5], arguments[4]);
	const Seconds total = Clock::now() - begin;
	sampler.Stop();
	Json::Value result;
	result["files"] = static_cast<Json::UInt64>(status.file_statuses.size());
	result["total"] = total.count();
	for (std::size_t phase = 0; phase < kNames.size(); ++phase) {
		result[kNames.at(phase)] = sampler.Spent(phase);
	}
	return result;
}

} // namespace

int main(int count, char** arguments) {
	if (count != 6) {
		std::cerr << "usage: phase_bench ID VERSION LINK VOLUME INSTALL_DIRECTORY\n";
		return 2;
	}
	try {
		std::cout << Measure(arguments) << '\n';
	} catch (const std::exception& error) {
		std::cerr << "phase_bench: " << error.what() << '\n';
		return 1;
	}
	return 0;
}
