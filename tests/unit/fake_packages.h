/** @file Packages that a test's server offers, and a decoder of patches. */
#ifndef TESTS_UNIT_FAKE_PACKAGES_H
#define TESTS_UNIT_FAKE_PACKAGES_H

#include "fake_platform.h"
#include "temporary_directory.h"

#include <functional>
#include <map>
#include <string>

namespace tarn::test {

/**
 * Lets the platform download and unpack a package by its link, where all other links fail, and run decode for the
 * decoder of patches: by default the output is the source with the patch appended.
 */
class FakePackages {
public:
	using Files = std::map<std::string, std::string>;

	explicit FakePackages(FakePlatform& platform) : platform_(platform) {
		platform_.execl = [this](const std::string& program, unsigned int options,
		                      const FakePlatform::Arguments& arguments) {
			return program == "/usr/bin/wget" ? _Download(arguments) : decode(program, options, arguments);
		};
		decode = [](const std::string&, unsigned int, const FakePlatform::Arguments& arguments) {
			WriteFile(arguments.at(2), ReadFile(arguments.at(1)) + ReadFile(arguments.at(3)));
			return 0;
		};
	}

	/** What a package holds, by its link. */
	std::map<std::string, Files> by_link;
	std::function<int(const std::string& program, unsigned int options, const FakePlatform::Arguments& arguments)>
	    decode;

private:
	int _Download(const FakePlatform::Arguments& arguments) {
		const auto package = by_link.find(arguments.at(1));
		if (package == by_link.end()) {
			return 8;
		}
		platform_.package_files = package->second;
		WriteFile(arguments.at(3), "package");
		return 0;
	}

	FakePlatform& platform_;
};

} // namespace tarn::test

#endif
