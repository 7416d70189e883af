// Runs one update through the library and prints, as JSON, how long it took and what it spent the time on.
//
// phase_bench ID ENTRY VOLUME INSTALL_DIRECTORY
//
// ENTRY is a file that holds the database's entry of the server's document. What the device's record says decides
// whether diff packages are taken; nothing is recorded, and no document is downloaded.

#include "dataupdate/installation.h"
#include "dataupdate/progress.h"
#include "dataupdate/update_error.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"

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

constexpr std::array<const char*, 6> kNames = {"other", "download", "check_and_unpack", "apply", "hash", "patch"};

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

tarn::dataupdate::DatabaseStatus Installed(const std::string& id) {
	try {
		return tarn::dataupdate::ReadRecord({}, id);
	} catch (const tarn::dataupdate::UpdateError& error) {
		if (error.code() != tarn::dataupdate::UpdateError::kFileNotExist) {
			throw;
		}
		return {};
	}
}

Json::Value Measure(char** arguments) {
	const auto status = Installed(arguments[1]);
	const Json::Value entry = tarn::dataupdate::IOUtils().ReadJson(arguments[2]);
	const auto remote = tarn::dataupdate::RemoteInfo::FromJson(entry);
	const auto diffs = tarn::dataupdate::DiffInfo::BatchFromJson(entry["diff_files"]);
	Sampler sampler;
	const auto begin = Clock::now();
	const auto updated = tarn::dataupdate::Updater().Update(
	    arguments[1], status, remote, diffs, arguments[3], arguments[4], arguments[3]);
	const Seconds total = Clock::now() - begin;
	sampler.Stop();
	Json::Value result;
	result["files"] = static_cast<Json::UInt64>(updated.file_statuses.size());
	result["total"] = total.count();
	for (std::size_t phase = 0; phase < kNames.size(); ++phase) {
		result[kNames.at(phase)] = sampler.Spent(phase);
	}
	return result;
}

} // namespace

int main(int count, char** arguments) {
	if (count != 5) {
		std::cerr << "usage: phase_bench ID ENTRY VOLUME INSTALL_DIRECTORY\n";
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
