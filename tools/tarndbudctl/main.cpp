#include "program.h"

#include <unistd.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
	using namespace tarn::ctl;
	try {
		return RunProgram(argc, argv, {std::cout, std::cerr, isatty(STDERR_FILENO) == 1, MakeServices, AllCommands()});
	} catch (const std::exception& error) {
		std::cerr << "tarndbudctl: It could not be started: " << error.what() << '\n';
		return kFailed;
	}
}
