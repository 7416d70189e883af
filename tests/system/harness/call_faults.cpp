// call_faults REPORT list PROGRAM [ARG...]
// call_faults REPORT PROCESS CALL NUMBER FAULT PROGRAM [ARG...]
//
// Runs a program and all that it starts, and writes their system calls to REPORT, a line for each: PROCESS CALL NUMBER
// AMOUNT and what it is about. PROCESS is the name of the program that runs in it with the how manieth process of that
// program it is; the number counts the calls of this name in the process, whichever of its threads makes them; the
// amount is what a call that reads or writes asks for. Or lets a single call meet a fault, and writes that one alone.
//
// FAULT is the name of an error, "kill" (the process ends right after the call), "hang" (the call does not return), or
// "short" (the kernel is asked for one byte of what the program asks for, so that it really reads or writes less). What
// the dynamic loader calls is left out. Exit status: that of the program, 128 more than the signal that ended it, 125
// when nothing could be traced.

#include "call_table.h"
#include "traced_program.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <string>
#include <utility>

namespace tarn::faults {

namespace {

struct Wanted {
	bool all = false;
	std::string process, call, fault;
	long number = 0;
};

// What a process is known as, and how often it has made each call.
struct Process {
	std::string name;
	std::map<std::string, long> counts;
	unsigned long loader_begin = 0, loader_end = 0;
};

// What is left to do when the call that a thread is in returns.
struct Pending {
	enum { kNone, kFailClose, kRestoreAmount, kKill, kHang } what = kNone;
	unsigned long long value = 0;
};

class Tracer {
public:
	Tracer(const std::string& report, Wanted wanted) : wanted_(std::move(wanted)), report_(report) {}

	int Run(char** program);

private:
	void Begin(pid_t child);
	void Handle(pid_t thread, int status);
	void HandleEvent(pid_t thread, int status);
	void Learn(pid_t thread, bool is_new_program);
	void FindLoader(pid_t group, Process& process) const;
	void OnCall(pid_t thread);
	void OnReturn(pid_t thread);
	void Write(pid_t thread, const Process& process, const Call& call, const user_regs_struct& registers);
	void Meet(pid_t thread, const Call& call, user_regs_struct& registers);
	static unsigned long long& Amount(const Call& call, user_regs_struct& registers);
	static void Continue(pid_t thread, __ptrace_request how, int signal);

	Wanted wanted_;
	std::ofstream report_;
	std::map<pid_t, Process> processes_;
	std::map<pid_t, pid_t> groups_;
	std::map<std::string, int> begun_;
	std::map<pid_t, Pending> pending_;
};

void Tracer::Continue(pid_t thread, __ptrace_request how, int signal) {
	// Who was killed meanwhile is told by wait().
	if (ptrace(how, thread, nullptr, static_cast<long>(signal)) < 0 && errno != ESRCH) {
		Fail("ptrace");
	}
}

void Tracer::FindLoader(pid_t group, Process& process) const {
	std::ifstream maps("/proc/" + std::to_string(group) + "/maps");
	for (std::string line; std::getline(maps, line);) {
		if (line.find("/ld-linux") == std::string::npos && line.find("/ld-2") == std::string::npos) {
			continue;
		}
		unsigned long begin = 0, end = 0;
		if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) == 2) {
			process.loader_begin = process.loader_begin == 0 ? begin : process.loader_begin;
			process.loader_end = end;
		}
	}
}

void Tracer::Learn(pid_t thread, bool is_new_program) {
	const pid_t group = GroupOf(thread);
	groups_[thread] = group;
	if (!is_new_program && processes_.count(group) != 0) {
		return;
	}
	const std::string path = LinkTarget("/proc/" + std::to_string(group) + "/exe");
	const std::string program = path.substr(path.rfind('/') + 1);
	Process process;
	process.name = program + "#" + std::to_string(++begun_[program]);
	FindLoader(group, process);
	processes_[group] = process;
}

void Tracer::Write(pid_t thread, const Process& process, const Call& call, const user_regs_struct& registers) {
	user_regs_struct copy = registers;
	report_ << process.name << ' ' << call.name << ' ' << process.counts.at(call.name) << ' ' << Amount(call, copy)
	        << ' ';
	if (call.about == About::kDescriptor) {
		report_ << LinkTarget("/proc/" + std::to_string(thread) + "/fd/" + std::to_string(registers.rdi));
	} else if (call.about != About::kNothing) {
		report_ << TextAt(thread, call.about == About::kPath ? registers.rdi : registers.rsi);
	}
	report_ << std::endl;
}

unsigned long long& Tracer::Amount(const Call& call, user_regs_struct& registers) {
	return call.number == SYS_copy_file_range ? registers.r8 : registers.rdx;
}

void Tracer::Meet(pid_t thread, const Call& call, user_regs_struct& registers) {
	Pending& pending = pending_[thread];
	if (wanted_.fault == "kill") {
		pending.what = Pending::kKill;
	} else if (wanted_.fault == "hang") {
		pending.what = Pending::kHang;
	} else if (wanted_.fault == "short") {
		// Programs rely on it that a call leaves this register alone.
		pending = {Pending::kRestoreAmount, Amount(call, registers)};
		Amount(call, registers) = std::min<unsigned long long>(Amount(call, registers), 1);
		ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
	} else if (call.number == SYS_close) {
		// A descriptor is gone after close() whatever it says.
		pending = {Pending::kFailClose, static_cast<unsigned long long>(-kErrors.at(wanted_.fault))};
	} else {
		registers.orig_rax = static_cast<unsigned long long>(-1);
		registers.rax = static_cast<unsigned long long>(-kErrors.at(wanted_.fault));
		ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
	}
}

void Tracer::OnCall(pid_t thread) {
	user_regs_struct registers{};
	if (ptrace(PTRACE_GETREGS, thread, nullptr, &registers) < 0) {
		return;
	}
	const Call* call = FindCall(static_cast<long>(registers.orig_rax));
	Process& process = processes_[groups_[thread]];
	if (call == nullptr || (registers.rip >= process.loader_begin && registers.rip < process.loader_end)) {
		return Continue(thread, PTRACE_CONT, 0);
	}
	const long number = ++process.counts[call->name];
	const bool is_met = process.name == wanted_.process && call->name == wanted_.call && number == wanted_.number;
	if (wanted_.all || is_met) {
		Write(thread, process, *call, registers);
	}
	if (is_met) {
		Meet(thread, *call, registers);
	}
	Continue(thread, pending_[thread].what == Pending::kNone ? PTRACE_CONT : PTRACE_SYSCALL, 0);
}

void Tracer::OnReturn(pid_t thread) {
	const Pending pending = pending_[thread];
	if (pending.what == Pending::kHang) {
		return;
	}
	pending_[thread] = {};
	user_regs_struct registers{};
	if (pending.what == Pending::kKill) {
		kill(groups_[thread], SIGKILL);
	} else if (ptrace(PTRACE_GETREGS, thread, nullptr, &registers) == 0) {
		const Call* call = FindCall(static_cast<long>(registers.orig_rax));
		(pending.what == Pending::kFailClose ? registers.rax : Amount(*call, registers)) = pending.value;
		ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
	}
	Continue(thread, PTRACE_CONT, 0);
}

void Tracer::HandleEvent(pid_t thread, int status) {
	const int event = status >> 16;
	if (event == PTRACE_EVENT_SECCOMP) {
		return OnCall(thread);
	}
	if (event == PTRACE_EVENT_EXEC) {
		Learn(thread, true);
	} else if (event == PTRACE_EVENT_STOP && WSTOPSIG(status) != SIGTRAP) {
		return Continue(thread, PTRACE_LISTEN, 0);
	}
	// A call in which a process begins or becomes another one returns only after that.
	Continue(thread, pending_[thread].what == Pending::kNone ? PTRACE_CONT : PTRACE_SYSCALL, 0);
}

void Tracer::Handle(pid_t thread, int status) {
	if (groups_.count(thread) == 0) {
		Learn(thread, false);
	}
	if ((status >> 16) != 0) {
		HandleEvent(thread, status);
	} else if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
		OnReturn(thread);
	} else {
		const bool waits = pending_[thread].what != Pending::kNone;
		Continue(thread, waits ? PTRACE_SYSCALL : PTRACE_CONT, WSTOPSIG(status));
	}
}

void Tracer::Begin(pid_t child) {
	const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEEXEC | PTRACE_O_TRACECLONE |
	                     PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_EXITKILL;
	int status = 0;
	if (waitpid(child, &status, WUNTRACED) < 0 || !WIFSTOPPED(status)) {
		Fail("wait");
	}
	if (ptrace(PTRACE_SEIZE, child, nullptr, options) < 0) {
		Fail("trace");
	}
	kill(child, SIGCONT);
}

int Tracer::Run(char** program) {
	const pid_t child = fork();
	if (child == 0) {
		Become(program);
	}
	Begin(child);
	int result = 125, status = 0;
	for (pid_t thread = 0; (thread = waitpid(-1, &status, __WALL)) > 0 || errno == EINTR;) {
		if (thread > 0 && WIFSTOPPED(status)) {
			Handle(thread, status);
			continue;
		}
		groups_.erase(thread);
		processes_.erase(thread);
		pending_.erase(thread);
		if (thread == child) {
			result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
		}
	}
	return result;
}

} // namespace

int Main(int count, char** arguments) {
	try {
		const bool lists = count > 3 && std::string(arguments[2]) == "list";
		if (!lists && count < 7) {
			std::fprintf(stderr, "usage: call_faults REPORT (list | PROCESS CALL NUMBER FAULT) PROGRAM [ARG...]\n");
			return 2;
		}
		Wanted wanted;
		wanted.all = lists;
		if (!lists) {
			wanted = {false, arguments[2], arguments[3], arguments[5], std::stol(arguments[4])};
		}
		return Tracer(arguments[1], wanted).Run(arguments + (lists ? 3 : 6));
	} catch (const std::exception& error) {
		std::fprintf(stderr, "call_faults: %s\n", error.what());
		return 125;
	}
}

} // namespace tarn::faults

int main(int count, char** arguments) {
	return tarn::faults::Main(count, arguments);
}
