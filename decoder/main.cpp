#include "decoder/command_line.h"

#include <csignal>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
	try {
		// A file that outgrows the process's limit is then a failed write, which is told, instead of a silent end.
		std::signal(SIGXFSZ, SIG_IGN);
		return tarn::decoder::RunCommandLine(argc, argv, std::cout, std::cerr);
	} catch (const std::exception& error) {
		std::cerr << "tarndbudvcdiff: It could not be started: " << error.what() << '\n';
		return tarn::decoder::kFailed;
	}
}
