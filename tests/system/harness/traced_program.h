/** @file Starting a program so that the calls of the table stop it, and what such a call is about. */
#ifndef TESTS_SYSTEM_HARNESS_TRACED_PROGRAM_H
#define TESTS_SYSTEM_HARNESS_TRACED_PROGRAM_H

#include "call_table.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::faults {

[[noreturn]] inline void Fail(const std::string& what) {
	throw std::runtime_error(what + ": " + std::strerror(errno));
}

inline std::string LinkTarget(const std::string& path) {
	char target[4096];
	const ssize_t length = readlink(path.c_str(), target, sizeof target);
	return length < 0 ? "?" : std::string(target, static_cast<std::size_t>(length));
}

inline std::string TextAt(pid_t thread, unsigned long long address) {
	char text[256] = {};
	const iovec local = {text, sizeof text - 1};
	const iovec remote = {reinterpret_cast<void*>(address), sizeof text - 1};
	if (process_vm_readv(thread, &local, 1, &remote, 1, 0) < 0) {
		// The end of the page may come before that many characters.
		const iovec rest = {reinterpret_cast<void*>(address), 4096 - address % 4096};
		process_vm_readv(thread, &local, 1, &rest, 1, 0);
	}
	return text;
}

inline pid_t GroupOf(pid_t thread) {
	std::ifstream status("/proc/" + std::to_string(thread) + "/status");
	for (std::string line; std::getline(status, line);) {
		if (line.rfind("Tgid:", 0) == 0) {
			return std::stoi(line.substr(5));
		}
	}
	return thread;
}

// Only the calls of the list stop the program, so that it is hardly slower than without.
inline void Filter() {
	std::vector<sock_filter> code = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
	for (const Call& call : kCalls) {
		code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call.number), 0, 1));
		code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
	}
	code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
	const sock_fprog program = {static_cast<unsigned short>(code.size()), code.data()};
	if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) < 0) {
		Fail("filter");
	}
}

[[noreturn]] inline void Become(char** program) {
	raise(SIGSTOP);
	try {
		Filter();
	} catch (const std::exception& error) {
		std::fprintf(stderr, "call_faults: %s\n", error.what());
		_exit(125);
	}
	execvp(program[0], program);
	_exit(127);
}

} // namespace tarn::faults

#endif
