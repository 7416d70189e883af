/**
 * @file
 * Starting and awaiting other programs.
 *
 * Failures are returned as errno values. Preparing a program allocates memory and may throw std::bad_alloc.
 */
#ifndef BASE_PROCESS_H
#define BASE_PROCESS_H

#include "base/unique_fd.h"

#include <signal.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tarn::process {

/** A stream of the child that stays what it is in the caller. */
constexpr int kInheritStream = -1;
/** A stream of the child that is /dev/null. */
constexpr int kNullStream = -2;

struct Program {
	std::string path;
	/** Whether a path without "/" is looked for along the caller's PATH, and a file without "#!" given to the shell. */
	bool search_path = false;
	/** Without argument 0, which is the path. */
	std::vector<std::string> arguments;
	/** "NAME=value" strings; the caller's own environment when absent. */
	std::optional<std::vector<std::string>> environment;
	/** Standard input, output and error: kInheritStream, kNullStream, or a descriptor of the caller. */
	std::array<int, 3> streams = {kInheritStream, kInheritStream, kInheritStream};
	/** The caller's when empty. */
	std::string working_directory;
	/** Whether every descriptor above 2 is closed in the child. */
	bool close_descriptors = true;
	/** Whether the child leads a process group of its own. */
	bool new_group = false;
	/** Whether the child starts with no signal blocked and none ignored. */
	bool reset_signals = true;
	/** The signals that are blocked in the child, whatever reset_signals says; absent: as reset_signals says. */
	std::optional<sigset_t> signal_mask;
	/** The signal that the child gets when the calling thread ends before it; 0 for none. */
	int death_signal = 0;
	/** The child's mask of file modes; the caller's when absent. */
	std::optional<mode_t> umask;
	/** The largest file in bytes that the child can make: SIGXFSZ ends it, without a core file, when it writes more. */
	std::optional<std::uint64_t> largest_file;
};

/**
 * Starts a program; on return it has been executed, or the reason why not is returned and nothing is left of it. The
 * child's number is -1 when there was not even a process that could have executed it.
 */
[[nodiscard]] int Start(const Program& program, pid_t& child);

/** Starts a program that nobody waits for: it becomes a child of the system's reaper and leaves no zombie. */
[[nodiscard]] int StartDetached(const Program& program);

/** To be polled for a child's end; without a descriptor errno tells why. */
[[nodiscard]] UniqueFd Open(pid_t child);

/** Waits for a child's end; status is as of waitpid(). */
[[nodiscard]] int Wait(pid_t child, int& status);

/**
 * Waits for a child's end like Wait(), and asks meanwhile whether it may go on: at once, and after every period. When
 * it may not, the child is killed.
 *
 * @param leads_group  whether the child leads a process group of its own, which is then killed as well
 */
[[nodiscard]] int WaitWatching(pid_t child, bool leads_group, std::chrono::milliseconds period,
    const std::function<bool()>& may_go_on, int& status);

} // namespace tarn::process

#endif
