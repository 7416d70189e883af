// Prints the application header of a patch between two files, for the encoder that the benchmark calls.
#include "decoder/patch_header.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
	try {
		if (argc != 3) {
			std::cerr << "usage: vcdiff_header SOURCE TARGET\n";
			return 2;
		}
		std::cout << tarn::decoder::MakeApplicationHeader(argv[1], argv[2]) << '\n';
	} catch (const std::exception& error) {
		std::cerr << "vcdiff_header: " << error.what() << '\n';
		return 1;
	}
}
