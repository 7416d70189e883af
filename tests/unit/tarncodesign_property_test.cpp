// Random archives, signed and hostile, one after the other into the same destination.
#include "codesign_archives.h"

#include <random>

namespace tarn::test {

namespace {

namespace fs = std::filesystem;

/** Draws members from few names, so that they meet each other's links and directories. */
class HostileMembers {
public:
	HostileMembers(unsigned seed, std::string outside) : generator_(seed), outside_(std::move(outside)) {}

	std::vector<TarMember> Draw() {
		constexpr unsigned kMaxMembers = 6;
		std::vector<TarMember> members;
		for (unsigned count = 1 + Below(kMaxMembers); count > 0; --count) {
			members.push_back(DrawMember());
		}
		return members;
	}

private:
	unsigned Below(unsigned bound) { return static_cast<unsigned>(generator_() % bound); }

	std::string DrawPath(unsigned ups_in_ten) {
		std::string path = Below(30) == 0 ? outside_ : Below(30) == 0 ? "/" : "";
		for (unsigned depth = 1 + Below(3); depth > 0; --depth) {
			const char* name = Below(10) < ups_in_ten ? ".." : kNames[Below(kNameCount)];
			path += (path.empty() || path.back() == '/' ? "" : "/") + std::string(name);
		}
		return path;
	}

	TarMember DrawMember() {
		TarMember member;
		member.type = kTypes[Below(kTypeCount)];
		member.name = DrawPath(Below(12) == 0 ? 4 : 0);
		const bool link = member.type == '1' || member.type == '2';
		member.link = link ? DrawPath(Below(3) == 0 ? 5 : 0) : "";
		member.content = member.type == '0' ? "planted" : "";
		member.mode = Below(30) == 0 ? 04755 : 0755;
		return member;
	}

	static constexpr unsigned kNameCount = 6;
	static constexpr const char* kNames[kNameCount] = {"a", "b", "c", "secret", ".", "outside"};
	static constexpr unsigned kTypeCount = 12;
	static constexpr const char* kTypes = "000011222553";

	std::mt19937 generator_;
	std::string outside_;
};

class HostileArchives : public ArchiveTest {
protected:
	/** Every link below the destination ends below it, whether or not what it names exists. */
	void ExpectNoLinkOut() const {
		const fs::path out = directory_.Path() / "out";
		for (const fs::directory_entry& entry : fs::recursive_directory_iterator(out)) {
			if (entry.is_symlink()) {
				std::error_code loop;
				const fs::path end = fs::weakly_canonical(entry.path(), loop);
				EXPECT_TRUE(loop || end == out || end.string().rfind(out.string() + "/", 0) == 0)
				    << entry.path() << " leads to " << end;
			}
		}
	}
};

TEST_F(HostileArchives, NeverLeaveTheDestination) {
	constexpr unsigned kArchives = 600;
	constexpr unsigned kArchivesPerDestination = 10;
	HostileMembers members(20261120, directory_ / "outside");
	unsigned accepted = 0;
	unsigned links = 0;
	for (unsigned round = 0; round < kArchives && !HasFailure(); ++round) {
		if (round % kArchivesPerDestination == 0) {
			EmptyDestination();
		}
		const std::string archive = Seal(members.Draw());
		accepted += InstallError(archive).empty() ? 1U : 0U;
		fs::remove(archive);
		ExpectOutsideUntouched();
		ExpectNoLinkOut();
		for (const auto& [name, content] : Installed()) {
			links += content.rfind("-> ", 0) == 0 ? 1U : 0U;
			EXPECT_NE(content, "secret") << name;
		}
		EXPECT_EQ(std::distance(fs::directory_iterator(directory_.Path()), {}), 2)
		    << "something beside the destination";
	}
	EXPECT_GT(accepted, kArchives / 10);
	EXPECT_GT(links, kArchives / 10);
}

} // namespace

} // namespace tarn::test
