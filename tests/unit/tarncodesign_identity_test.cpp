// Which package is the one that a file's name asks for, by what it says about itself.
#include "archive/package_identity.h"

#include <gmock/gmock.h>

#include <string>

namespace tarn::archive {

namespace {

using ::testing::HasSubstr;

std::string Full(const std::string& id, const std::string& version) {
	return R"({"data_version":)" + version + R"(,"format_version":"1","id":")" + id +
	       R"(","kind":"full","published":1795280000})";
}

std::string Diff(const std::string& id, int version, int base) {
	return R"({"base_version":)" + std::to_string(base) + R"(,"data_version":)" + std::to_string(version) +
	       R"(,"format_version":"1","id":")" + id + R"(","kind":"diff","published":1795280000})";
}

/** What is said against a package under a name; empty when it is the one that is asked for. */
std::string Objection(const std::string& metadata, const std::string& name) {
	try {
		RequireAskedFor(metadata, name);
		return "";
	} catch (const NotAskedFor& error) {
		return error.what();
	}
}

TEST(PackageIdentityTest, AcceptsAPackageUnderEachOfItsNames) {
	EXPECT_EQ(Objection(Full("geo", "3"), "geo_v3"), "");
	EXPECT_EQ(Objection(Full("geo", "3"), "geo_debug"), "");
	EXPECT_EQ(Objection(Full("geo", "0"), "geo_v0"), "");
	EXPECT_EQ(Objection(Full("geo", "2147483647"), "geo_v2147483647"), "");
	EXPECT_EQ(Objection(Full("a_v1", "2"), "a_v1_v2"), "");
	EXPECT_EQ(Objection(Diff("geo", 4, 3), "geo_d4"), "");
	EXPECT_EQ(Objection(Diff("geo", 0, -1), "geo_d0"), "");
}

TEST(PackageIdentityTest, SaysWhatIsAskedForAndWhatThePackageIs) {
	EXPECT_EQ(Objection(Full("geo", "1"), "geo_v3"),
	    "the full package of geo, version 3 is asked for, and this is the full package of geo, version 1");
	EXPECT_EQ(Objection(Full("other", "1"), "geo_debug"),
	    "a full package of geo is asked for, and this is the full package of other, version 1");
	EXPECT_EQ(Objection(Diff("geo", 4, 3), "geo_v4"),
	    "the full package of geo, version 4 is asked for, and this is the diff package of geo from version 3 to 4");
	EXPECT_EQ(Objection(Full("geo", "4"), "geo_d4"),
	    "the diff package of geo to version 4 is asked for, and this is the full package of geo, version 4");
	EXPECT_EQ(Objection(Full("geo", "4"), "geo4"),
	    "a package under the name geo4, which no package of data updates has, is asked for, and this is the full "
	    "package of geo, version 4");
}

struct Stranger {
	std::string metadata;
	const char* name;
};

TEST(PackageIdentityTest, RefusesEveryOtherDatabaseVersionKindAndBase) {
	const Stranger strangers[] = {{Full("geo", "4"), "geo_v3"}, {Full("geo", "3"), "geo_v4"},
	    {Full("geo", "3"), "geo_v2147483647"}, {Full("geo", "3"), "geo_v03"}, {Full("geo", "3"), "geo_v-3"},
	    {Full("geo", "3"), "geo_v33"}, {Full("other", "3"), "geo_v3"}, {Full("geo", "3"), "other_v3"},
	    {Full("geo", "3"), "GEO_v3"}, {Full("geo", "3"), "xgeo_v3"}, {Full("geo", "3"), "geo_d3"},
	    {Full("geo", "3"), "geo"}, {Full("geo", "3"), ""}, {Full("geo", "3"), "geo_v3.tarn"},
	    {Full("geo", "3"), "geo_debug2"}, {Full("", "3"), "geo_v3"}, {Diff("geo", 3, 2), "geo_v3"},
	    {Diff("geo", 3, 2), "geo_debug"}, {Diff("geo", 3, 2), "geo_d2"}, {Diff("geo", 3, 2), "geo_d4"},
	    {Diff("geo", 3, 1), "geo_d3"}, {Diff("geo", 3, 3), "geo_d3"}, {Diff("other", 3, 2), "geo_d3"}};
	for (const Stranger& stranger : strangers) {
		EXPECT_THAT(Objection(stranger.metadata, stranger.name), HasSubstr("is asked for, and this is the "))
		    << stranger.metadata << " as " << stranger.name;
	}
}

TEST(PackageIdentityTest, RefusesMetadataThatDoesNotTell) {
	struct Case {
		std::string metadata;
		const char* problem;
	};
	const std::string deep =
	    R"({"data_version":3,"id":"geo","kind":"full","x":)" + std::string(60, '[') + std::string(60, ']') + "}";
	const std::string full = Full("geo", "3");
	const Case cases[] = {{"", "no JSON object"}, {"{", "no JSON object"}, {"[]", "no JSON object"},
	    {"null", "no JSON object"}, {"\"geo\"", "no JSON object"}, {full + "x", "no JSON object"},
	    {full + full, "no JSON object"}, {full + std::string("\0x", 2), "no JSON object"},
	    {"/* geo */" + full, "no JSON object"}, {R"({"id":"geo","id":"other"})", "no JSON object"},
	    {deep, "no JSON object"}, {std::string(60'000, '['), "no JSON object"}, {"{}", "\"id\" is no string"},
	    {R"({"id":7})", "\"id\" is no string"}, {R"({"id":"geo"})", "\"kind\" is neither"},
	    {R"({"id":"geo","kind":"Full"})", "\"kind\" is neither"}, {R"({"id":"geo","kind":{}})", "\"kind\" is neither"},
	    {R"({"id":"geo","kind":"full"})", "\"data_version\" is no integer"},
	    {Full("geo", "\"3\""), "\"data_version\" is no integer"},
	    {Full("geo", "3.0"), "\"data_version\" is no integer"}, {Full("geo", "3e0"), "\"data_version\" is no integer"},
	    {Full("geo", "-3"), "\"data_version\" is no integer"},
	    {Full("geo", "4294967299"), "\"data_version\" is no integer"},
	    {Full("geo", "true"), "\"data_version\" is no integer"},
	    {R"({"data_version":3,"id":"geo","kind":"diff"})", "\"base_version\" is no integer"},
	    {R"({"base_version":"2","data_version":3,"id":"geo","kind":"diff"})", "\"base_version\" is no integer"},
	    {R"({"data_version":3,"id":"geo","kind":"full","published":"now"})", "\"published\" is no number"},
	    {R"({"data_version":3,"id":"geo","kind":"full","published":null})", "\"published\" is no number"},
	    {R"({"data_version":3,"id":"geo","kind":"full","published":-1})", "\"published\" is no number"}};
	for (const Case& one : cases) {
		const std::string objection = Objection(one.metadata, "geo_v3");
		EXPECT_THAT(objection, HasSubstr(one.problem)) << one.metadata;
		EXPECT_THAT(objection, HasSubstr("the full package of geo, version 3 is asked for, and this package does not "
		                                 "tell what it is: its "))
		    << one.metadata;
	}
}

TEST(PackageIdentityTest, NeedsNoTimeOfPublication) {
	EXPECT_EQ(Objection(R"({"data_version":3,"id":"geo","kind":"full","more":{"x":[1]}})", "geo_v3"), "");
}

TEST(PackageIdentityTest, IgnoresUnknownMembers) {
	const std::string unknown = R"({"Id":"other","a":null,"base":7,"key":{"id":"other"},"version":[9,"4"],)";
	EXPECT_EQ(Objection(unknown + Full("geo", "3").substr(1), "geo_v3"), "");
	EXPECT_EQ(Objection(unknown + Diff("geo", 4, 3).substr(1), "geo_d4"), "");
	EXPECT_THAT(Objection(unknown + Full("geo", "3").substr(1), "geo_v4"), HasSubstr("full package of geo, version 3"));
}

TEST(PackageIdentityTest, PutsNoForeignTextIntoTheLogAsItIs) {
	const std::string objection = Objection(Full("a\\nb" + std::string(5000, 'x'), "3"), "geo_v3");
	EXPECT_THAT(objection, HasSubstr("the full package of a\\x0ab"));
	EXPECT_LT(objection.size(), 500U);
}

} // namespace

} // namespace tarn::archive
