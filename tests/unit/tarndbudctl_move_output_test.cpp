#include "base/file_io.h"
#include "base/unique_fd.h"
#include "host/library/volume_move.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace tarn::ctl {
namespace {

TEST(MoveOutputTest, PassesOnTheFirstLinesOfMvAndAllOthers) {
	const test::TemporaryDirectory directory;
	const std::string path = directory / "stderr";
	const UniqueFd own(dup(STDERR_FILENO));
	const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
	dup2(file.Get(), STDERR_FILENO);
	std::string expected;
	std::size_t hidden = 0;
	{
		MoveOutput output;
		for (int number = 0; number < 5000; ++number) {
			const std::string line = "/bin/mv: cannot move " + std::to_string(number) + "\n";
			const std::string other = number % 1000 == 0 ? "tarndbudctl[1]: line " + std::to_string(number) + "\n" : "";
			expected += (number < 5 ? line : "") + other;
			EXPECT_TRUE(WriteAll(STDERR_FILENO, (line + other).data(), line.size() + other.size()));
		}
		hidden = output.End();
		EXPECT_EQ(output.End(), hidden);
	}
	EXPECT_TRUE(WriteAll(STDERR_FILENO, "mv: later\n", 10));
	dup2(own.Get(), STDERR_FILENO);
	EXPECT_EQ(hidden, 4995U);
	EXPECT_EQ(test::ReadFile(path), expected + "mv: later\n");
}

} // namespace
} // namespace tarn::ctl
