// The pages of a repository: what they are made of, and how they appear.
#include "diff_fixture.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/withdraw.h"
#include "publisher/site/catalogue.h"
#include "publisher/site/directory.h"
#include "publisher/site/markup.h"
#include "publisher/site/page_parts.h"
#include "publisher/site/pages.h"
#include "publisher/site/plot.h"
#include "publisher/site/site.h"

#include <algorithm>
#include <set>

namespace tarn::test {

namespace {

namespace site = publisher::site;

TEST(SiteMarkup, HasNoWayForDataToBecomeMarkup) {
	EXPECT_EQ(site::Escaped("<a href=\"x\" b='y'>&amp;"), "&lt;a href=&quot;x&quot; b=&#39;y&#39;&gt;&amp;amp;");
	site::Markup page;
	page.Begin("p", {{"title", "\"><script>"}}).Say("</p><script>").End();
	EXPECT_EQ(page.Text(), "<p title=\"&quot;&gt;&lt;script&gt;\">&lt;/p&gt;&lt;script&gt;</p>");
}

TEST(SiteMarkup, HoldsNoCharacterThatXmlForbids) {
	EXPECT_EQ(site::Escaped(std::string("a\0\x01\x1b\n", 5)), "a\\x00\\x01\\x1b\\x0a");
	EXPECT_EQ(site::Escaped("\xff\xc0\xaf"), "\\xff\\xc0\\xaf");
	EXPECT_EQ(site::Escaped("\xef\xbf\xbe\xef\xbf\xbf"), "??");
	EXPECT_EQ(site::Escaped("Größe \xf0\x9f\x8c\x8d"), "Größe \xf0\x9f\x8c\x8d");
}

TEST(SiteMarkup, GivesEachNameAPathOfItsOwnWithinTheSite) {
	EXPECT_EQ(site::PathName("geo-ip_2.v4"), "geo-ip_2.v4");
	EXPECT_EQ(site::PathName(".."), "~2e.");
	EXPECT_EQ(site::PathName("a/../b"), "a~2f..~2fb");
	const std::string long_name(200, 'x');
	const std::vector<std::string> names = {"", "~", "~7e", "a b", "a~20b", ".a", "~2ea", "A", "a", long_name,
	    long_name + "y", long_name.substr(0, 150), "<b>"};
	std::set<std::string> paths;
	for (const std::string& name : names) {
		const std::string path = site::PathName(name);
		EXPECT_TRUE(paths.insert(path).second) << name;
		EXPECT_EQ(path.find_first_of("/<>\"'& "), std::string::npos) << path;
		EXPECT_LE(path.size(), 255U);
		EXPECT_NE(path.front(), '.');
	}
}

TEST(SiteMarkup, LinksToTheWebAlone) {
	EXPECT_EQ(site::WebLink("https://x/y"), "https://x/y");
	EXPECT_EQ(site::WebLink("javascript:alert(1)"), "");
	EXPECT_EQ(site::WebLink(" https://x"), "");
	EXPECT_EQ(site::WebLink("data:text/html,x"), "");
}

site::Plot PlotOf(std::vector<site::Series::Point> points, bool is_logarithmic) {
	site::Plot plot;
	plot.id = "p";
	plot.title = "Sizes & <more>";
	plot.across = "version";
	plot.up = "size of a package";
	plot.series = {{"full", "full", std::move(points)}};
	plot.is_logarithmic = is_logarithmic;
	return plot;
}

std::string Drawn(const site::Plot& plot) {
	site::Markup page;
	site::Draw(plot, page);
	return page.Text();
}

std::size_t CountOf(const std::string& text, const std::string& part) {
	std::size_t count = 0;
	for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
		++count;
	}
	return count;
}

/** The path of the first series. */
std::string LineOf(const std::string& drawn) {
	const std::size_t series = drawn.find("<g class=\"full\">");
	const std::size_t begin = drawn.find("d=\"", series) + 3;
	return drawn.substr(begin, drawn.find('"', begin) - begin);
}

TEST(SitePlot, PlacesTheSmallestBelowAndTheNewestAtTheRight) {
	const std::string line = LineOf(Drawn(PlotOf({{1, 0}, {2, 50}, {3, 100}}, false)));
	EXPECT_EQ(line, "M66.0 190.0h0L231.0 108.0L396.0 26.0");
	const std::string powers = LineOf(Drawn(PlotOf({{1, 1000}, {2, 10000}, {3, 100000}}, true)));
	EXPECT_EQ(powers, "M66.0 190.0h0L231.0 108.0L396.0 26.0");
}

TEST(SitePlot, BreaksTheLineWhereNumbersAreMissing) {
	const std::string line = LineOf(Drawn(PlotOf({{1, 5}, {2, 5}, {9, 5}, {10, 5}}, false)));
	EXPECT_EQ(CountOf(line, "M"), 2U);
	EXPECT_EQ(CountOf(line, "L"), 2U);
}

TEST(SitePlot, HasRoundNumbersAtItsAxesAndTheirUnits) {
	const std::string drawn = Drawn(PlotOf({{1001, 13000}, {1007, 61000}}, false));
	for (const char* label : {">0 B<", ">20 kB<", ">60 kB<", ">80 kB<", ">1002<", ">1004<", ">1006<"}) {
		EXPECT_EQ(CountOf(drawn, label), 1U) << label;
	}
	EXPECT_THAT(drawn, Not(HasSubstr(">1001<")));
	EXPECT_THAT(drawn, HasSubstr(">version</text>"));
	EXPECT_THAT(drawn, HasSubstr(">size of a package</text>"));
	EXPECT_THAT(Drawn(PlotOf({{3, 61}, {3, 61}}, false)), HasSubstr(">3<")) << "a number alone";
}

TEST(SitePlot, JoinsALevelWithoutMarks) {
	site::Plot plot = PlotOf({{1, 5}, {9, 5}}, false);
	plot.series[0].is_level = true;
	const std::string drawn = Drawn(plot);
	EXPECT_EQ(LineOf(drawn), "M66.0 26.0h0L396.0 26.0");
	EXPECT_THAT(drawn, Not(HasSubstr("<circle")));
}

TEST(SitePlot, NamesNoSeriesWithoutPoints) {
	site::Plot plot = PlotOf({{1, 5}}, false);
	plot.series.push_back({"nothing", "diff", {}});
	EXPECT_THAT(Drawn(plot), Not(HasSubstr("nothing")));
}

TEST(SitePlot, IsBoundedAndKeepsTheLargest) {
	std::vector<site::Series::Point> points(20000);
	for (int version = 0; version < 20000; ++version) {
		points[static_cast<std::size_t>(version)] = {version, version == 12345 ? 1000U : 10U};
	}
	const std::string drawn = Drawn(PlotOf(points, false));
	EXPECT_LT(drawn.size(), 12000U);
	EXPECT_EQ(CountOf(LineOf(drawn), " 26.0"), 1U) << "the one large version is drawn at the top";
	EXPECT_EQ(CountOf(LineOf(drawn), "M"), 1U) << "nothing is missing";
}

TEST(SitePlot, IsReadWithoutBeingSeen) {
	const std::string drawn = Drawn(PlotOf({{7, 2000}}, true));
	EXPECT_THAT(drawn, HasSubstr("role=\"img\" aria-labelledby=\"p-title p-text\""));
	EXPECT_THAT(drawn, HasSubstr("<title id=\"p-title\">Sizes &amp; &lt;more&gt;</title>"));
	EXPECT_THAT(drawn, HasSubstr("full, version 7: 2.0 kB"));
	EXPECT_THAT(Drawn(PlotOf({}, false)), HasSubstr("<svg"));
	EXPECT_THAT(Drawn(PlotOf({{0, 0}}, true)), Not(HasSubstr("nan")));
}

class SiteDirectory : public ::testing::Test {
protected:
	std::vector<std::string> Names() const {
		std::vector<std::string> names;
		for (const fs::directory_entry& entry : fs::directory_iterator(home_)) {
			names.push_back(entry.path().filename().string());
		}
		std::sort(names.begin(), names.end());
		return names;
	}
	void Make(const std::string& content) const {
		site::WholeDirectory directory(place_);
		directory.Write("databases/x/index.html", content);
		directory.Commit();
	}
	std::string Content() const { return ReadFile(place_ + "/databases/x/index.html"); }

	TemporaryDirectory directory_;
	std::string home_ = directory_ / "home";
	std::string place_ = home_ + "/site";
};

TEST_F(SiteDirectory, TakesThePlaceOfTheOldOneWhole) {
	Make("one");
	EXPECT_EQ(Content(), "one");
	{
		site::WholeDirectory unfinished(place_);
		unfinished.Write("index.html", "x");
		EXPECT_FALSE(fs::exists(place_ + "/index.html"));
	}
	EXPECT_EQ(Content(), "one");
	Make("two");
	EXPECT_EQ(Content(), "two");
	EXPECT_THAT(Names(), ElementsAre("site"));
	EXPECT_EQ(fs::status(place_).permissions(), fs::perms(0755));
}

TEST_F(SiteDirectory, RemovesWhatKilledRunsLeftAndNothingOfRunningOnes) {
	Make("one");
	site::WholeDirectory running(place_);
	running.Write("index.html", "x");
	fs::create_directories(home_ + "/.site.tarndbudpub-killed/sub");
	fs::create_directories(home_ + "/.other.tarndbudpub-killed");
	Make("two");
	EXPECT_FALSE(fs::exists(home_ + "/.site.tarndbudpub-killed"));
	EXPECT_TRUE(fs::exists(home_ + "/.other.tarndbudpub-killed"));
	running.Commit();
	EXPECT_EQ(ReadFile(place_ + "/index.html"), "x");
}

TEST_F(SiteDirectory, RefusesAPlaceThatHoldsAnythingElse) {
	fs::create_directories(place_);
	Make("an empty directory is fine");
	std::ofstream(place_ + "/letter") << "dear";
	EXPECT_THROW(Make("x"), publisher::PublishError);
	EXPECT_EQ(ReadFile(place_ + "/letter"), "dear");
	place_ = home_ + "/site/letter";
	EXPECT_THROW(Make("x"), publisher::PublishError);
}

class SitePages : public DiffPublisherTest {
protected:
	SitePages() { options_.level = 1; }

	void PublishUpTo(int version) {
		while (version_ < version) {
			Put("text", "version " + std::to_string(++version_) + Noise(3000, 1));
			Publish();
		}
	}
	site::Catalogue Read() { return site::ReadCatalogue(options_.repository, observer_); }

	int version_ = 0;
};

TEST_F(SitePages, KnowEveryVersionWithItsSizes) {
	options_.keep_diffs = 2;
	options_.notes = "hello";
	PublishUpTo(4);
	const site::Catalogue catalogue = Read();
	ASSERT_EQ(catalogue.databases.size(), 1U);
	const site::Database& database = catalogue.databases[0];
	ASSERT_EQ(database.versions.size(), 4U);
	EXPECT_EQ(database.versions[0].number, 4) << "the newest first";
	EXPECT_EQ(database.Find(2)->full_size, fs::file_size(Package(2)));
	EXPECT_EQ(database.Find(4)->diff_size, fs::file_size(Diff(4)));
	EXPECT_EQ(database.Find(2)->diff_size, std::nullopt);
	EXPECT_EQ(database.Find(1)->notes, "hello");
	EXPECT_THAT(database.MainOffer()->chain, ElementsAre(fs::file_size(Diff(4)), fs::file_size(Diff(3))));
	EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(SitePages, TellWhichVersionsWereWithdrawnAlsoWithoutTheirPackages) {
	options_.keep_diffs = 9;
	PublishUpTo(4);
	publisher::PublishOptions back = options_;
	publisher::Withdraw(back, 2, observer_);
	for (const bool has_packages : {true, false}) {
		const site::Catalogue catalogue = Read();
		const site::Database& database = catalogue.databases[0];
		EXPECT_EQ(database.Find(5)->restores, 2);
		EXPECT_EQ(database.Find(4)->withdrawn_by, 5) << has_packages;
		EXPECT_EQ(database.Find(3)->withdrawn_by, 5) << has_packages;
		EXPECT_FALSE(database.Find(2)->is_withdrawn);
		EXPECT_EQ(database.Find(3)->published.has_value(), has_packages);
		fs::remove_all(options_.repository + "/packages/db/.withdrawn");
	}
}

TEST_F(SitePages, LeaveOutWhatCannotBeReadAndSaySo) {
	PublishUpTo(3);
	fs::resize_file(Package(2), 50);
	const site::Catalogue catalogue = Read();
	EXPECT_EQ(catalogue.databases[0].Find(2)->full_size, std::nullopt);
	ASSERT_EQ(warnings_.size(), 1U);
	EXPECT_THAT(warnings_[0], HasSubstr(Package(2)));
}

TEST_F(SitePages, ShowADeprecatedDatabaseAndADamagedChannel) {
	PublishUpTo(1);
	Json::Value value = Document();
	value["deprecated"] = true;
	WriteFile(options_.repository + "/database_info/1", value.toStyledString());
	WriteFile(options_.repository + "/database_info/broken", "{");
	const site::Catalogue catalogue = Read();
	EXPECT_TRUE(catalogue.databases[0].offers[0].is_deprecated);
	const std::string page = site::ChannelsPage(catalogue);
	EXPECT_THAT(page, HasSubstr("newest, deprecated"));
	EXPECT_THAT(page, HasSubstr("The document of channel broken cannot be read."));
	EXPECT_THAT(page, Not(HasSubstr(options_.repository))) << "where the repository lies is nobody's business";
}

TEST_F(SitePages, TellWhatADeviceDownloadsByHowFarItIsBehind) {
	site::Database database;
	database.id = "db";
	publisher::Entry entry;
	entry.data_version = 9;
	database.offers.push_back({"1", entry, false, {10, 20, 30}});
	site::Version version;
	version.number = 9;
	version.full_size = 100;
	database.versions.push_back(version);
	const std::string page = site::DatabasePage({}, database);
	EXPECT_THAT(page, HasSubstr("one version behind 10 B, 3 versions behind 60 B by diff packages; devices that are "
	                            "further behind take the full package of 100 B."));
	EXPECT_THAT(page, HasSubstr("download of the device, versions behind 2: 30 B"));
	EXPECT_THAT(page, HasSubstr("download of the device, versions behind 4: 100 B"));
	database.offers[0].chain.clear();
	EXPECT_THAT(site::DatabasePage({}, database), HasSubstr("all devices take the full package of 100 B."));
}

TEST_F(SitePages, KeepChangesByThePackagesThatTheyWereFoundIn) {
	PublishUpTo(3);
	site::SiteOptions options;
	options.repository = options_.repository;
	options.out = directory_ / "site";
	options.url = "https://example.org";
	options.keys = {PublicKey()};
	EXPECT_EQ(site::MakeSite(options, observer_).compared, 2U);
	const std::string page = ReadFile(options.out + "/databases/db/changes-3.html");
	EXPECT_THAT(page, HasSubstr("text"));
	site::SiteResult again = site::MakeSite(options, observer_);
	EXPECT_EQ(again.compared, 0U);
	EXPECT_EQ(again.kept, 2U);
	EXPECT_EQ(ReadFile(options.out + "/databases/db/changes-3.html"), page);
	// Version 3 is another one now, as after a lost repository was begun again.
	fs::remove_all(options_.repository + "/packages/db");
	fs::remove_all(options_.repository + "/database_info");
	version_ = 0;
	Put("more", "x");
	PublishUpTo(3);
	EXPECT_EQ(site::MakeSite(options, observer_).compared, 2U);
	EXPECT_THAT(warnings_, IsEmpty());
	fs::resize_file(Package(2), 50);
	again = site::MakeSite(options, observer_);
	EXPECT_FALSE(fs::exists(options.out + "/databases/db/changes-2.html"));
	EXPECT_THAT(warnings_, Contains(HasSubstr("The site does not tell what version")));
}

} // namespace

} // namespace tarn::test
