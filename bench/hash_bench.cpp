// Prints the seconds that the library needs for a file's digest, and the digest: hash_bench FILE

#include "dataupdate/updater.h"

#include <chrono>
#include <iostream>

int main(int count, char** arguments) {
	if (count != 2) {
		std::cerr << "usage: hash_bench FILE\n";
		return 2;
	}
	const auto begin = std::chrono::steady_clock::now();
	const auto statuses = tarn::dataupdate::CalculateStatus({arguments[1]}, "/");
	const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
	if (statuses.empty()) {
		std::cerr << "hash_bench: no such file: " << arguments[1] << '\n';
		return 1;
	}
	std::cout << seconds.count() << ' ' << statuses.begin()->second.sha384_digest << '\n';
	return 0;
}
