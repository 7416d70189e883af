/** @file System calls of the tested code that a test lets fail, and a clock that it sets. */
#ifndef TESTS_UNIT_FAKE_SYSTEM_H
#define TESTS_UNIT_FAKE_SYSTEM_H

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tarn::test {

/**
 * While the object lives, the calls that the library makes can be told to fail, and its waiting costs no time: a sleep
 * moves its clock on and returns at once. Only one at a time. Calls that can fail, by name: open, flock, syncfs, fsync,
 * opendir, readdir, read, write, copy_file_range, fchmod, linkat, renameat2.
 */
class FakeSystem {
public:
	FakeSystem();
	~FakeSystem();
	FakeSystem(const FakeSystem&) = delete;
	FakeSystem& operator=(const FakeSystem&) = delete;
	FakeSystem(FakeSystem&&) = delete;
	FakeSystem& operator=(FakeSystem&&) = delete;

	static FakeSystem* Current();

	/** Lets a call fail so many times, after so many that succeed. */
	void Fail(const std::string& call, int error, int times = 1, int after = 0);

	/** For the doubles: whether this call has to fail, with errno then set. */
	bool IsFailureDue(const std::string& call);

	/** Called at each call that could fail. */
	std::function<void(const std::string& call)> on_call;
	/** How often the library slept while it waited. */
	int polls = 0;
	/** Called at each such sleep with its number, from 1. */
	std::function<void(int)> on_poll;
	/** Moves the library's monotonic clock on; any thread may. */
	void Advance(std::chrono::microseconds by) { ahead_ += by.count(); }
	/** How far that clock is ahead of the real one. */
	std::chrono::microseconds Ahead() const { return std::chrono::microseconds(ahead_); }
	/** What time() tells, in seconds. */
	std::optional<long> seconds;
	/** Bytes available and capacity of every file system. */
	std::optional<std::pair<unsigned long, unsigned long>> space;
	bool space_works = true;
	/** Whether directory entries come without their types, as some file systems give them. */
	bool hide_entry_types = false;
	/** Shares a file's content with another one; without it no file system here can. */
	std::function<bool(int to, int from)> clone;
	/** The flags of a file as chattr(1) sets them; without it no file system here has any. */
	std::function<int(int file)> flags;

private:
	struct Fault {
		int error = 0;
		int times = 0;
		int after = 0;
	};
	std::map<std::string, Fault> faults_;
	std::atomic<std::chrono::microseconds::rep> ahead_ = 0;
};

} // namespace tarn::test

#endif
