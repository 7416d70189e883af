#include "base/file_io.h"
#include "base/signals.h"
#include "host/commands/commands.h"
#include "host/library/process.h"
#include "host/program.h"

#include <malloc.h>
#include <unistd.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
	using namespace tarn::ctl;
	tarn::OpenStandardStreams();
	tarn::process::KeepEndsOfChildren();
	SetOwnUmask();
	// Else the threshold follows the blocks that are freed, and lists of files, whose blocks are larger than this,
	// would not give their memory back.
	constexpr int kMappedBytes = 128 * 1024;
	mallopt(M_MMAP_THRESHOLD, kMappedBytes);
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
