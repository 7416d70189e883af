/** @file Changes to the files of a database beside which they are made ready. */
#ifndef TESTS_UNIT_STAGED_CHANGES_TEST_H
#define TESTS_UNIT_STAGED_CHANGES_TEST_H

#include "dataupdate/internal/staged_changes.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace tarn::dataupdate {

inline struct stat StatusOf(const std::string& path) {
	struct stat status {};
	EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
	return status;
}

/** Until a change gets another time than the last one. */
inline void LetTimePass() {
	std::this_thread::sleep_for(std::chrono::milliseconds(40));
}

/** A database, working copies of its changed files, and a place for what is made ready. */
class StagedChangesTest : public testing::Test {
protected:
	StagedChangesTest() {
		for (const char* name : {"volume/area/sum", "volume/db"}) {
			std::filesystem::create_directories(directory_ / name);
		}
	}

	std::string Installed(const std::string& name) const { return directory_ / ("volume/db/" + name); }
	std::string Place() const { return directory_ / "volume/area/staged"; }
	void Override(const std::string& name) {
		const std::string source = directory_ / ("volume/area/sum/" + std::to_string(changes_.size()));
		WriteFile(source, "new " + name);
		_Change(name, ModifyInfo::kOverride, source);
	}
	void Delete(const std::string& name) {
		_Change(name, ModifyInfo::kDelete, directory_ / ("volume/area/sum/" + std::to_string(changes_.size())));
	}
	/** Ten files in each of these directories, of which three are changed. */
	void ChangeSome(const std::vector<std::string>& directories) {
		for (const std::string& directory : directories) {
			for (char file = '0'; file <= '9'; ++file) {
				WriteFile(Installed(directory + "/" + file), "old");
			}
			for (char file = '0'; file < '3'; ++file) {
				Override(directory + "/" + file);
			}
		}
	}
	StagedChanges Staged(std::size_t most_renames) const {
		LetTimePass();
		StagedChanges changes(changes_, directory_ / "volume/db", Place(), most_renames);
		changes.Stage();
		return changes;
	}
	/** Installs, and counts the renames for which readers wait. */
	int RenamesOf(const StagedChanges& changes) {
		int renamed = 0;
		system_.on_call = [&](const std::string& call) { renamed += call == "renameat2" ? 1 : 0; };
		changes.Install();
		system_.on_call = nullptr;
		return renamed;
	}
	std::vector<std::string> Exchanged(std::size_t most_renames) const {
		return DirectoriesToExchange(changes_, directory_ / "volume/db", most_renames);
	}
	void ExpectChanged() const {
		for (const auto& [name, info] : changes_) {
			if (info.operation == ModifyInfo::kOverride) {
				EXPECT_EQ(ReadFile(Installed(name)), "new " + name);
			} else {
				EXPECT_FALSE(std::filesystem::exists(Installed(name))) << name;
			}
		}
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	Changes changes_;

private:
	void _Change(const std::string& name, std::int32_t operation, const std::string& source) {
		ModifyInfo& info = changes_[name];
		info.operation = operation;
		info.source = source;
	}
};

} // namespace tarn::dataupdate

#endif
