#include "base/file_io.h"
#include "decoder/decode.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <exception>
#include <iostream>

namespace tarn::decoder {

namespace {

enum ExitCode : int {
	kDone = 0,
	kFailed = 1,
	kUsage = 2, ///< The command line cannot be understood.
};

constexpr char kProgram[] = "tarndbudvcdiff";
constexpr char kFooter[] =
    "Makes OUTPUT from SOURCE and PATCH, a VCDIFF patch (RFC 3284) without secondary compression. OUTPUT appears "
    "whole\n"
    "and checked or not at all; it replaces a file of that name, and must be neither SOURCE nor PATCH. All three are\n"
    "regular files. For a patch made from nothing SOURCE is an empty file.\n"
    "\n"
    "Checked are the source's size and the output's size and XXH3-128 when the patch states them in an application\n"
    "header \"TARNVCD1 <source size> <target size> <hash>\", else the Adler-32 of those windows that have one.\n"
    "\n"
    "The output may be 64 times as large as SOURCE and PATCH together, at least 256 MiB, and never more than 64 GiB;\n"
    "--max-output replaces this. Memory stays below 16 MiB whatever the files' sizes.\n"
    "\n"
    "Exit status: 0 done, 1 failed (one line on the error stream says why), 2 wrong usage.";

struct Options {
	std::string source;
	std::string output;
	std::string patch;
	DecodeLimits limits;
};

void DeclareDecode(CLI::App& app, Options& options) {
	CLI::App* decode = app.add_subcommand("decode", "Apply a patch");
	decode->add_option("SOURCE", options.source, "File that the patch was made from")->required();
	decode->add_option("OUTPUT", options.output, "File to make")->required();
	decode->add_option("PATCH", options.patch, "VCDIFF patch")->required();
	decode->add_option("--max-output", options.limits.max_output, "Largest OUTPUT, in bytes")
	    ->check(CLI::NonNegativeNumber)
	    ->type_name("BYTES");
}

ExitCode Decode(const Options& options) {
	try {
		DecodeFile(options.source, options.output, options.patch, options.limits);
		return kDone;
	} catch (const std::exception& error) {
		std::cerr << kProgram << ": " << error.what() << '\n';
		return kFailed;
	}
}

ExitCode RunCommandLine(int argc, const char* const* argv) {
	Options options;
	CLI::App app("Applies VCDIFF patches.", kProgram);
	app.set_version_flag("--version", std::string(kProgram) + " " + TARNDBUDVCDIFF_VERSION);
	app.require_subcommand(1);
	app.footer(kFooter);
	DeclareDecode(app, options);
	try {
		app.parse(argc, argv);
	} catch (const CLI::Success& success) {
		app.exit(success);
		return std::cout.flush() ? kDone : kFailed;
	} catch (const CLI::ParseError& error) {
		std::cerr << kProgram << ": " << error.what() << " (see " << kProgram << " --help)\n";
		return kUsage;
	}
	return Decode(options);
}

} // namespace

} // namespace tarn::decoder

int main(int argc, char** argv) {
	tarn::OpenStandardStreams();
	try {
		// A file that outgrows the process's limit is then a failed write, which is told, instead of a silent end.
		std::signal(SIGXFSZ, SIG_IGN);
		return tarn::decoder::RunCommandLine(argc, argv);
	} catch (const std::exception& error) {
		std::cerr << "tarndbudvcdiff: It could not be started: " << error.what() << '\n';
		return tarn::decoder::kFailed;
	}
}
