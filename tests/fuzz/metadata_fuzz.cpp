// Hostile metadata of a package whose signature is good: a package is taken only as what another parser says that it
// is. The input is the name that was asked for, a line feed, and the metadata.
#include "archive/package_identity.h"
#include "entry.h"
#include "scratch.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>

namespace {

using nlohmann::json;
using tarn::test::Require;

bool IsTaken(std::string_view metadata, const std::string& name) {
	try {
		tarn::archive::RequireAskedFor(metadata, name);
		return true;
	} catch (const tarn::archive::NotAskedFor& error) {
		Require(*error.what() != '\0' && tarn::test::IsOneLine(error.what()), "a refusal is one line");
		return false;
	}
}

/** The names under which a package may have been asked for. */
bool HasName(const json& package, const std::string& name) {
	const std::string id = package.at("id");
	const auto version = package.at("data_version").get<std::int64_t>();
	if (package.at("kind") == "full") {
		return name == id + "_v" + std::to_string(version) || name == id + "_debug";
	}
	return package.at("kind") == "diff" && package.at("base_version").get<std::int64_t>() == version - 1 &&
	       name == id + "_d" + std::to_string(version);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	const std::string_view input = tarn::test::Text(data, size);
	const std::size_t end = std::min(input.find('\n'), input.size());
	const std::string name(input.substr(0, end));
	const std::string_view metadata = input.substr(std::min(end + 1, input.size()));
	if (IsTaken(metadata, name)) {
		const json package = json::parse(metadata, nullptr, false);
		// The other parser is strict about UTF-8, halves of a pair and zeros before a number.
		Require(package.is_discarded() || HasName(package, name), "a package is what was asked for");
	}
	return 0;
}
