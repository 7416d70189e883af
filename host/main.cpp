#include "host/commands/commands.h"
#include "host/library/process.h"
#include "host/program.h"

#include <unistd.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
	using namespace tarn::ctl;
	SetOwnUmask();
	try {
		const InterruptionWatch watch;
		const int code =
		    RunProgram(argc, argv, {std::cout, std::cerr, isatty(STDERR_FILENO) == 1, MakeServices, AllCommands()});
		if (code == kInterrupted) {
			watch.EndBySignal();
		}
		return code;
	} catch (const std::exception& error) {
		std::cerr << "tarndbudctl: It could not be started: " << error.what() << '\n';
		return kFailed;
	}
}
