// A process that rewrites the archive while it is checked and extracted.
#include "base/error.h"
#include "codesign_archives.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>

namespace tarn::test {

namespace {

constexpr std::size_t kContentSize = 2'500'000;

/** Rewrites a file in place, whole or in part, with two contents in turn until it is ended. */
class Attacker {
public:
	Attacker(const std::string& path, const std::string& good, const std::string& evil) : child_(fork()) {
		if (child_ == 0) {
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			Rewrite(path, good, evil);
		}
	}
	Attacker(const Attacker&) = delete;
	Attacker& operator=(const Attacker&) = delete;
	~Attacker() {
		kill(child_, SIGKILL);
		waitpid(child_, nullptr, 0);
	}

private:
	[[noreturn]] static void Rewrite(const std::string& path, const std::string& good, const std::string& evil) {
		const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
		constexpr std::size_t kSteps = 7;
		for (std::size_t round = 0; true; ++round) {
			// Whole, then ever later tails, so that heads and payloads of both kinds meet.
			const std::size_t from = good.size() * (round % kSteps) / kSteps;
			Put(fd, evil, from);
			Put(fd, good, from);
		}
	}

	static void Put(int fd, const std::string& bytes, std::size_t from) {
		if (pwrite(fd, bytes.data() + from, bytes.size() - from, static_cast<off_t>(from)) < 0) {
			_exit(1);
		}
	}

	pid_t child_;
};

class ArchiveRace : public ArchiveTest {};

TEST_F(ArchiveRace, NeverInstallsUnsignedBytesWhileTheArchiveIsRewritten) {
	const std::string content = RandomBytes(kContentSize, 1);
	const std::string archive = Seal({File("f", content)});
	const std::string good = ReadFile(archive);
	const std::string evil = ReadFile(SealFrames(FramesOf(MakeTar({File("f", RandomBytes(kContentSize, 2))})), 1,
	    kContentSize, archive::SigningKey::Generate()));
	ASSERT_EQ(good.size(), evil.size());
	int refused = 0;
	{
		const Attacker attacker(archive, good, evil);
		constexpr int kRounds = 400;
		constexpr int kEnoughRefusals = 100;
		for (int round = 0; round < kRounds && refused < kEnoughRefusals; ++round) {
			EmptyDestination();
			const bool installed = InstallError(archive).empty();
			refused += installed ? 0 : 1;
			const auto files = Installed();
			const auto file = files.find("f");
			const std::string bytes = file == files.end() ? "" : file->second;
			ASSERT_LE(files.size(), 1U);
			ASSERT_TRUE(content.compare(0, bytes.size(), bytes) == 0) << "unsigned bytes in round " << round;
			ASSERT_TRUE(!installed || bytes.size() == content.size())
			    << "a part taken for the whole in round " << round;
		}
	}
	EXPECT_GT(refused, 0) << "the attacker never got in the way, so nothing was shown";
	WriteFile(archive, good);
	EXPECT_EQ(InstallError(archive), "");
}

} // namespace

} // namespace tarn::test
