#include "base/file_io.h"
#include "base/signals.h"
#include "publisher/commands/command_line.h"

#include <unistd.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
	tarn::OpenStandardStreams();
	tarn::process::KeepEndsOfChildren();
	try {
		const std::vector<std::string> arguments(argv + 1, argv + argc);
		return tarn::publisher::RunCommandLine(arguments, std::cout, std::cerr, isatty(STDERR_FILENO) == 1);
	} catch (const std::exception& error) {
		std::cerr << "tarndbudpub: " << error.what() << "\n";
		return tarn::publisher::kFailed;
	}
}
