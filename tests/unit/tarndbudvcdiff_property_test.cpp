// Random contents and edits: what an encoder in use makes is decoded to the same bytes, and what is broken never to
// others.
#include "child_process.h"
#include "temporary_directory.h"
#include "vcdiff_builder.h"

#include <gtest/gtest.h>

#include <random>

namespace tarn::decoder::test {

namespace {

using tarn::test::ReadFile;
using tarn::test::WriteFile;

class Contents {
public:
	explicit Contents(unsigned seed) : generator_(seed) {}

	std::size_t Below(std::size_t bound) { return generator_() % bound; }

	/** Noise, runs and repetitions of what was there before. */
	std::string Draw(std::size_t size) {
		std::string content;
		while (content.size() < size) {
			const std::size_t length = 1 + Below(Below(8) == 0 ? 20'000 : 200);
			const std::size_t kind = Below(4);
			if (kind == 0) {
				content.append(length, static_cast<char>(Below(256)));
			} else if (kind == 1 && !content.empty()) {
				const std::size_t from = Below(content.size());
				content += content.substr(from, length);
			} else {
				AppendNoise(content, length);
			}
		}
		content.resize(size);
		return content;
	}

	/** Overwritten, inserted, removed and moved pieces. */
	std::string Edit(std::string content) {
		for (std::size_t edits = Below(40); edits > 0 && !content.empty(); --edits) {
			const std::size_t place = Below(content.size());
			std::string piece;
			AppendNoise(piece, Below(60));
			const std::size_t kind = Below(4);
			if (kind == 0) {
				content.insert(place, piece);
			} else if (kind == 1) {
				content.erase(place, Below(3000));
			} else if (kind == 2) {
				content.insert(Below(content.size()), content.substr(place, Below(5000)));
			} else {
				content.replace(place, piece.size(), piece);
			}
		}
		return content;
	}

private:
	void AppendNoise(std::string& content, std::size_t length) {
		// Few letters make short matches, many make none.
		const std::size_t letters = Below(2) == 0 ? 4 : 256;
		for (; length > 0; --length) {
			content += static_cast<char>(Below(letters));
		}
	}

	std::mt19937 generator_;
};

class VcdiffProperty : public ::testing::Test {
protected:
	/** What xdelta3 makes of the pair, with these options. */
	std::string Encode(const std::string& source, const std::string& target, const std::vector<std::string>& options) {
		WriteFile(source_, source);
		WriteFile(target_, target);
		std::vector<std::string> command = {"xdelta3", "-e", "-f", "-S", "none"};
		command.insert(command.end(), options.begin(), options.end());
		for (const std::string& last : {target_, patch_}) {
			command.push_back(last);
		}
		const auto result = tarn::test::RunChild(command, directory_.Path().string());
		EXPECT_EQ(result.exit_code, 0) << result.err;
		return ReadFile(patch_);
	}

	tarn::test::TemporaryDirectory directory_;
	std::string source_ = directory_ / "source";
	std::string target_ = directory_ / "target";
	std::string patch_ = directory_ / "patch";
};

TEST_F(VcdiffProperty, WhatXdelta3EncodesIsDecodedToTheSameBytes) {
	const std::vector<std::vector<std::string>> option_sets = {{"-0"}, {"-1"}, {"-3"}, {"-6"}, {"-9"}, {}, {"-n"},
	    {"-9", "-n"}, {"-A="}, {"-A=header"}, {"-W", "16384"}, {"-1", "-W", "16384"}, {"-9", "-W", "16384", "-n"},
	    {"-B", "524288"}, {"-9", "-B", "524288", "-W", "16384"}, {"-B", "536870912", "-W", "16777216"}, {"-I", "0"},
	    {"-I", "100", "-9"}, {"-P", "16384"}, {"-N"}, {"-D"}, {"-C", "9,3,4,8,2,36,70"}};
	Contents contents(20261121);
	const std::size_t sizes[] = {0, 1, 100, 20'000, 120'000};
	unsigned round = 0;
	for (const auto& options : option_sets) {
		for (const bool with_source : {true, false}) {
			const std::string source = contents.Draw(sizes[round++ % 5]);
			const std::string target = contents.Below(5) == 0 ? contents.Draw(50'000) : contents.Edit(source);
			std::vector<std::string> all = options;
			if (with_source) {
				all.insert(all.end(), {"-s", source_});
			}
			const std::string patch = Encode(source, target, all);
			SCOPED_TRACE(::testing::PrintToString(all) + " round " + std::to_string(round));
			EXPECT_TRUE(Decoded(with_source ? source : "", patch) == target);
			// Buffers so small that every border is met everywhere.
			EXPECT_TRUE(Decoded(with_source ? source : "", patch, {std::nullopt, {13, 17, 1009}}) == target);
		}
	}
}

TEST_F(VcdiffProperty, WhatXdelta3EncodesWithOurHeaderIsChecked) {
	Contents contents(7);
	for (unsigned round = 0; round < 5; ++round) {
		const std::string source = contents.Draw(30'000);
		const std::string target = contents.Edit(source);
		const std::string patch = Encode(
		    source, target, {"-9", "-B", "524288", "-W", "16384", "-A=" + PromiseOf(source, target), "-s", source_});
		EXPECT_TRUE(Decoded(source, patch) == target);
		std::string wrong = source;
		wrong[contents.Below(wrong.size())] ^= 1;
		// The byte may be one that the target doesn't have.
		const std::string error = ErrorOf(wrong, patch);
		EXPECT_TRUE(error == "no error" || error.find("another hash") != std::string::npos) << error;
		EXPECT_EQ(ErrorOf(source + "x", patch), "source has 30001 bytes, but patch was made for a source of 30000.");
	}
}

TEST_F(VcdiffProperty, WhatXdelta3EncodesWithChecksumsFindsAWrongSource) {
	Contents contents(8);
	unsigned found = 0;
	for (unsigned round = 0; round < 5; ++round) {
		const std::string source = contents.Draw(30'000);
		const std::string target = contents.Edit(source);
		const std::string patch = Encode(source, target, {"-9", "-B", "524288", "-W", "16384", "-s", source_});
		std::string wrong = source;
		wrong[contents.Below(wrong.size())] ^= 1;
		const std::string error = ErrorOf(wrong, patch);
		EXPECT_TRUE(error == "no error" || error.find("checksum") != std::string::npos) << error;
		found += error == "no error" ? 0U : 1U;
		EXPECT_TRUE(error != "no error" || Decoded(wrong, patch) == target);
	}
	EXPECT_GT(found, 0U);
}

TEST_F(VcdiffProperty, ASecondaryCompressionIsRefusedByItsName) {
	Contents contents(9);
	const std::string source = contents.Draw(20'000);
	const std::string target = contents.Draw(20'000);
	// The last -S counts.
	EXPECT_EQ(ErrorOf(source, Encode(source, target, {"-S", "djw"})),
	    "patch, byte 6: secondary compression (DJW) is not supported.");
	EXPECT_EQ(ErrorOf(source, Encode(source, target, {"-S", "fgk"})),
	    "patch, byte 6: secondary compression (FGK) is not supported.");
	EXPECT_EQ(ErrorOf(source, Encode(source, target, {"-S", "lzma"})),
	    "patch, byte 6: secondary compression (LZMA) is not supported.");
}

TEST_F(VcdiffProperty, ABrokenPatchNeverMakesAnotherResult) {
	Contents contents(10);
	for (const bool promised : {true, false}) {
		const std::string source = contents.Draw(2'000);
		const std::string target = contents.Edit(source);
		const std::string header = promised ? PromiseOf(source, target) : "";
		const std::string patch = Encode(source, target, {"-9", "-A=" + header, "-s", source_});
		unsigned errors = 0;
		for (std::size_t place = 0; place < patch.size(); ++place) {
			for (const int mask : {0x01, 0x02, 0x04, 0x10, 0x40, 0x7f, 0x80, 0xff}) {
				std::string broken = patch;
				broken[place] = static_cast<char>(broken[place] ^ mask);
				try {
					EXPECT_TRUE(Decoded(source, broken) == target) << "byte " << place << " mask " << mask;
				} catch (const DecodeError&) {
					++errors;
				}
			}
		}
		EXPECT_GT(errors, 7 * patch.size());
	}
}

} // namespace

} // namespace tarn::decoder::test
