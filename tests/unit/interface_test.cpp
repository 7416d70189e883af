// What programs that were built against the library rely on: which names it exports, and the slots of its operations.
#include "dataupdate/hook.h"
#include "dataupdate/project_lock.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update.h"
#include "dataupdate/update_error.h"
#include "dataupdate/volume_handler.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace tarn::dataupdate {
namespace {

/** Which slot of its class's virtual table an operation has, as the C++ interface of this system lays it down. */
template<typename Operation>
std::size_t Slot(Operation operation) {
	struct {
		std::uintptr_t pointer;
		std::uintptr_t adjustment;
	} parts{};
	static_assert(sizeof(operation) == sizeof(parts));
	std::memcpy(&parts, &operation, sizeof(parts));
	// A virtual operation is marked by the lowest bit, on some processors of the other word.
	const bool elsewhere = (parts.adjustment & 1U) != 0;
	EXPECT_TRUE(elsewhere || (parts.pointer & 1U) != 0) << "not virtual";
	return (elsewhere ? parts.pointer : parts.pointer - 1) / sizeof(void*);
}

template<typename... Operations>
std::vector<std::size_t> Slots(Operations... operations) {
	return {Slot(operations)...};
}

// Two slots go to the destructor, so the first operation of a class with a virtual one has slot 2.

TEST(SlotsTest, OfErrors) {
	EXPECT_THAT(Slots(&UpdateError::what, &UpdateError::code), ElementsAre(2, 3));
	EXPECT_TRUE((std::is_base_of_v<std::exception, UpdateError>));
}

TEST(SlotsTest, OfTheFileUtility) {
	EXPECT_THAT(
	    Slots(&IOUtils::GetSize, &IOUtils::GetFsSize, &IOUtils::ReadJson, &IOUtils::WriteJson, &IOUtils::FileCreateOver,
	        &IOUtils::RmRf, &IOUtils::CopyFile, &IOUtils::Download, &IOUtils::TarnMkdir, &IOUtils::IterateDirectory),
	    ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
	EXPECT_EQ(sizeof(IOUtils), sizeof(void*)); // No data.
}

TEST(SlotsTest, OfTheConfiguration) {
	const auto set = [](auto type) {
		using Value = typename decltype(type)::type;
		return static_cast<void (Config::*)(const std::string&, const std::string&, Value) const>(&Config::Set);
	};
	struct Text {
		using type = const std::string&;
	};
	struct Characters {
		using type = const char*;
	};
	struct Number {
		using type = unsigned long;
	};
	struct Flag {
		using type = bool;
	};
	EXPECT_THAT(Slots(&Config::Init, &Config::Get, &Config::GetAsUInt64, &Config::GetAsBool, set(Text()),
	                set(Characters()), set(Number()), set(Flag()), &Config::GetSections),
	    ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10));
}

TEST(SlotsTest, OfTheConfigurationsViews) {
	EXPECT_THAT(Slots(&ServiceConfig::GetDatabaseIDs, &ServiceConfig::GetDatabaseConfig, &ServiceConfig::CheckSupported,
	                &ServiceConfig::GetDownloadScheme, &ServiceConfig::GetDBInfoDomainName,
	                &ServiceConfig::GetDBInfoVersion, &ServiceConfig::GetCurVolume, &ServiceConfig::SetCurVolume),
	    ElementsAre(2, 3, 4, 5, 6, 7, 8, 9));
	EXPECT_THAT(Slots(&DatabaseConfig::GetScheduled, &DatabaseConfig::SetScheduled, &DatabaseConfig::GetFormatVersion,
	                &DatabaseConfig::GetInstallPrefix, &DatabaseConfig::GetRootDirectory,
	                &DatabaseConfig::GetMinReservedSpaceInbytes),
	    ElementsAre(2, 3, 4, 5, 6, 7));
}

TEST(SlotsTest, OfTheChecker) {
	EXPECT_THAT(Slots(&Checker::IsUpdating, &Checker::IsAnyUpdating), ElementsAre(2, 3));
}

TEST(SlotsTest, OfStrategies) {
	EXPECT_THAT(Slots(&BaseStrategy::PrepareUpdate, &BaseStrategy::ApplyUpdate, &BaseStrategy::GetModifiedFiles,
	                &BaseStrategy::GetDeltaSize),
	    ElementsAre(2, 3, 4, 5));
	EXPECT_EQ(sizeof(BaseStrategy), sizeof(void*)); // No data.
	EXPECT_TRUE((std::is_base_of_v<BaseStrategy, FullStrategy>));
	EXPECT_TRUE((std::is_base_of_v<BaseStrategy, ForceInstallByLink>));
}

TEST(SlotsTest, OfUpdaterAndFixer) {
	EXPECT_THAT(Slots(&Updater::Update), ElementsAre(2));
	EXPECT_EQ(sizeof(Updater), sizeof(void*));
	EXPECT_THAT(Slots(&Fixer::IsFixNeeded, &Fixer::Fix), ElementsAre(0, 1));
	EXPECT_FALSE(std::has_virtual_destructor_v<Fixer>);
}

TEST(SlotsTest, OfHooks) {
	EXPECT_THAT(Slots(&UpdateHook::ExecPre, &UpdateHook::ExecPost, &UpdateHook::Clear), ElementsAre(2, 3, 4));
}

TEST(SlotsTest, OfTheVolumeHandler) {
	EXPECT_THAT(Slots(&VolumeHandler::InitVolume, &VolumeHandler::UnmountVolumeEvent, &VolumeHandler::MountVolumeEvent,
	                &VolumeHandler::FindSuitableVolume, &VolumeHandler::GetMainDirPath,
	                &VolumeHandler::CreateDirectories, &VolumeHandler::IsSuitable),
	    ElementsAre(2, 3, 4, 5, 6, 7, 8));
}

TEST(SlotsTest, OfTheFront) {
	EXPECT_THAT(Slots(&InfoGetter::GetRemoteInfo, &InfoGetter::GetDiffInfos, &InfoGetter::GetDatabaseStatus,
	                &InfoGetter::SetDatabaseStatus, &InfoGetter::GetDatabaseInfo, &InfoGetter::GetDatabaseUrl,
	                &InfoGetter::GetQueryString),
	    ElementsAre(2, 3, 4, 5, 6, 7, 8));
	EXPECT_THAT(Slots(&Update::UpdateAllProjects, &Update::UpdateProject, &Update::FixAllProjects, &Update::FixProject,
	                &Update::ForceInstall),
	    ElementsAre(2, 3, 4, 5, 6));
}

TEST(OwnershipTest, FrontObjectsShareWhatTheyAreGivenAndLetGoOfIt) {
	const auto io = std::make_shared<IOUtils>();
	const auto service = std::make_shared<ServiceConfig>(std::make_shared<Config>(io));
	EXPECT_EQ(io.use_count(), 2);
	{
		const auto getter = std::make_shared<InfoGetter>(io, service);
		const auto updater = std::make_shared<Updater>();
		const Update update(updater, getter, service);
		const Checker checker(service);
		const VolumeHandler handler(service);
		EXPECT_EQ(io.use_count(), 3);
		EXPECT_EQ(service.use_count(), 5);
		EXPECT_EQ(getter.use_count(), 2);
		EXPECT_EQ(updater.use_count(), 2);
	}
	EXPECT_EQ(io.use_count(), 2);
	EXPECT_EQ(service.use_count(), 1);
}

struct PipeCloser {
	void operator()(FILE* pipe) const { pclose(pipe); }
};

struct Symbol {
	std::string name;
	char kind;
};

std::string Shortened(std::string name) {
	const std::string text = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";
	for (std::size_t at = name.find(text); at != std::string::npos; at = name.find(text, at)) {
		name.replace(at, text.size(), "std::string");
	}
	return name;
}

/** From a line "<name> <kind> <address> <size>", whose name may hold blanks. */
Symbol Parse(const std::string& line) {
	std::smatch parts;
	static const std::regex form("(.*) ([A-Za-z]) [0-9a-f]*( [0-9a-f]*)?\\s*");
	if (!std::regex_match(line, parts, form)) {
		throw std::invalid_argument(line);
	}
	return {Shortened(parts[1]), parts[2].str().front()};
}

std::vector<Symbol> Exports(const std::string& library) {
	const std::string command = "nm --dynamic --defined-only --demangle --format=posix '" + library + "'";
	const std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "r"));
	std::vector<Symbol> symbols;
	std::array<char, 4096> line{};
	while (pipe && fgets(line.data(), static_cast<int>(line.size()), pipe.get()) != nullptr) {
		symbols.push_back(Parse(line.data()));
	}
	return symbols;
}

std::set<std::string> ReviewedExports() {
	std::ifstream file(TARN_EXPORTED_SYMBOLS);
	std::set<std::string> names;
	for (std::string line; std::getline(file, line);) {
		names.insert(line);
	}
	return names;
}

TEST(ExportsTest, AreExactlyTheReviewedOnes) {
	std::set<std::string> missing = ReviewedExports();
	const std::set<std::string> reviewed = missing;
	ASSERT_FALSE(reviewed.empty());
	std::set<std::string> unexpected;
	for (const Symbol& symbol : Exports(TARN_LIBRARY)) {
		missing.erase(symbol.name);
		// What a compiler makes by itself, such as a copy operation, is there only where it was not inlined.
		const bool by_itself = std::strchr("WVu", symbol.kind) != nullptr;
		if (reviewed.count(symbol.name) == 0 && !by_itself) {
			unexpected.insert(symbol.name);
		}
	}
	EXPECT_THAT(missing, IsEmpty());
	EXPECT_THAT(unexpected, IsEmpty());
}

TEST(ExportsTest, AreTheLibrarysOwn) {
	std::vector<std::string> strange;
	for (const Symbol& symbol : Exports(TARN_LIBRARY)) {
		if (symbol.name.compare(0, 8, "TARNDBUD") != 0 && symbol.name.find("tarn::dataupdate::") == std::string::npos) {
			strange.push_back(symbol.name);
		}
	}
	EXPECT_THAT(strange, IsEmpty());
}

} // namespace
} // namespace tarn::dataupdate
