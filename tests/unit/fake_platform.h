/** @file The platform's C functions, replaced at link time by ones that a test programs. */
#ifndef TESTS_UNIT_FAKE_PLATFORM_H
#define TESTS_UNIT_FAKE_PLATFORM_H

#include <tarncodesign/tarncodesign.h>
#include <tarncrypto/tarncrypto.h>
#include <tarnsdk/plugin.h>
#include <tarnsdk/volume.h>

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct tarnarchive {
	std::string destination;
};

struct TLIBPluginContext {
	std::string module;
	std::string path;
};

namespace tarn::test {

/**
 * What the platform does, for as long as the object lives; only one at a time. Everything succeeds unless a test says
 * otherwise: a download writes download_content, a package unpacks to package_files, and each call leaves its line in
 * events, so that a test can assert the order over all of them.
 */
class FakePlatform {
public:
	using Arguments = std::vector<std::string>;

	FakePlatform();
	~FakePlatform();
	FakePlatform(const FakePlatform&) = delete;
	FakePlatform& operator=(const FakePlatform&) = delete;
	FakePlatform(FakePlatform&&) = delete;
	FakePlatform& operator=(FakePlatform&&) = delete;

	static FakePlatform& Current();

	std::vector<std::string> events;

	/** Called for TLIBCExecl; by default a download that succeeds. */
	std::function<int(const std::string& program, unsigned int options, const Arguments& arguments)> execl;
	/** Called for TLIBCExec; by default a move that succeeds. */
	std::function<int(const std::string& program, const Arguments& arguments)> exec;
	std::string download_content = "package";
	int error_code = 0;
	bool mkdir_works = true;
	std::string user_agent = "agent/1.0";
	int user_agent_result = 0;

	int plugin_init_result = 0;
	int plugin_set_result = 0;
	int plugin_action_result = 0;
	/** Called while the hooks of an action run. */
	std::function<void()> on_plugin_action;
	std::list<TLIBPluginContext> plugins;
	/** Whether there are hooks that check. */
	bool has_checks = false;
	int check_result = 0;
	std::string check_reason;
	/** Called while the checking hooks run. */
	std::function<void()> on_plugin_check;

	bool volumes_work = true;
	std::vector<TARNMountVolInfo> volumes;
	std::function<int(const TARNMountVolInfo& record)> volume_policy;
	/** Enumerations that were not freed yet. */
	int open_volume_lists = 0;

	bool archive_init_works = true;
	bool archive_open_works = true;
	bool archive_extract_works = true;
	std::map<std::string, std::string> package_files;
	/** Called after package_files were written, for members that are no files. */
	std::function<void(const std::string& destination)> extract_more;
	/** Archive contexts that were not freed yet. */
	int open_archives = 0;

	bool hardware_id_init_works = true;
	bool hardware_id_works = true;
	std::string hardware_id = "0123456789abcdef0123456789abcdef";
	int open_hardware_ids = 0;

	/** Adds a volume that is fit in every respect. */
	TARNMountVolInfo& AddVolume(const std::string& mount_path, std::uint64_t free_bytes);
	/** How many events begin with the text. */
	std::size_t CountEvents(const std::string& beginning) const;
};

} // namespace tarn::test

#endif
