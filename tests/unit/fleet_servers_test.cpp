#include "bench/model/catalogue.h"
#include "bench/model/servers.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::fleet {

namespace {

constexpr std::uint64_t kFull = 1000;
constexpr std::uint64_t kDiff = 100;

Publication Publish(Moment at, const std::string& channel = "1", std::uint64_t diff = kDiff) {
	return {Change::kPublish, at, channel, "", -1, kFull, diff, -1};
}

Parameters Plain() {
	Parameters parameters;
	parameters.length = kDay;
	parameters.habits = {Habit()};
	parameters.zones = {Zone()};
	parameters.channels = {{"1", 1}, {"canary", 0}};
	parameters.document = {50, 10, 4, 100};
	parameters.caches.document_seconds = 10;
	parameters.caches.fetch = 100;
	return parameters;
}

std::vector<std::string> Names(const Catalogue& catalogue, const std::vector<PackageNumber>& numbers) {
	std::vector<std::string> names;
	for (const PackageNumber number : numbers) {
		names.push_back(catalogue.Packages()[number].name);
	}
	return names;
}

const Edition& At(const Catalogue& catalogue, Moment time, const std::string& channel = "1") {
	return catalogue.EditionOf(*catalogue.EditionAt(catalogue.ChannelNumber(channel), time));
}

const Package& Named(const Catalogue& catalogue, const std::string& name) {
	for (const Package& package : catalogue.Packages()) {
		if (package.name == name) {
			return package;
		}
	}
	throw std::invalid_argument(name);
}

using Strings = std::vector<std::string>;

/** A cache before an origin with one version. */
struct Pair {
	explicit Pair(const Parameters& given)
	    : parameters(given),
	      catalogue(parameters),
	      origin(parameters, catalogue),
	      tally(parameters.length),
	      cache(parameters, catalogue, origin, tally, parameters.caches.document_seconds) {}

	Status Document(Moment time) { return cache.Ask({true, 0}, time).status; }
	[[nodiscard]] std::uint64_t AtOrigin() const { return origin.Counts().Requests(); }

	Parameters parameters;
	Catalogue catalogue;
	Origin origin;
	Tally tally;
	Cache cache;
};

Pair PairWith(Parameters parameters) {
	parameters.publications = {Publish(-kDay)};
	return Pair(parameters);
}

} // namespace

TEST(FleetCatalogue, AChainLeadsFromEachVersionThatTheDocumentStillNames) {
	Parameters parameters = Plain();
	parameters.document.most_diffs = 2;
	for (const Moment at : {0, 10, 20, 30}) {
		parameters.publications.push_back(Publish(at));
	}
	const Catalogue catalogue(parameters);
	const Edition& last = At(catalogue, 30);
	EXPECT_EQ(Names(catalogue, last.ChainFrom(2)), (Strings{"d3", "d4"}));
	EXPECT_EQ(Names(catalogue, last.ChainFrom(3)), (Strings{"d4"}));
	EXPECT_TRUE(last.ChainFrom(1).empty());
	EXPECT_TRUE(last.ChainFrom(kNothing).empty());
	EXPECT_EQ(last.bytes, 50U + 2 * 10);
	EXPECT_EQ(Named(catalogue, "d2").there.end, 30) << "deleted when the document names it no more";
	EXPECT_EQ(Named(catalogue, "v1").there.end, kNever);
	EXPECT_EQ(At(catalogue, 29).newest, 3);
}

TEST(FleetCatalogue, DiffPackagesAreTogetherNoLargerThanTheFullOne) {
	Parameters parameters = Plain();
	parameters.publications = {Publish(0), Publish(1, "1", 600), Publish(2, "1", 300), Publish(3, "1", 300)};
	const Catalogue catalogue(parameters);
	EXPECT_EQ(Names(catalogue, At(catalogue, 2).ChainFrom(1)), (Strings{"d2", "d3"}));
	EXPECT_TRUE(At(catalogue, 3).ChainFrom(1).empty());
	EXPECT_EQ(Names(catalogue, At(catalogue, 3).ChainFrom(2)), (Strings{"d3", "d4"}));
}

TEST(FleetCatalogue, AVersionWithoutDiffPackageBeginsANewChain) {
	Parameters parameters = Plain();
	parameters.publications = {Publish(0), Publish(1), Publish(2, "1", 0), Publish(3)};
	const Catalogue catalogue(parameters);
	EXPECT_TRUE(At(catalogue, 2).diffs.empty());
	EXPECT_EQ(Names(catalogue, At(catalogue, 3).ChainFrom(3)), (Strings{"d4"}));
	EXPECT_TRUE(At(catalogue, 3).ChainFrom(2).empty());
}

TEST(FleetCatalogue, AChannelIsAheadUntilItsVersionIsPromoted) {
	Parameters parameters = Plain();
	parameters.publications = {Publish(0), {Change::kPromote, 1, "canary", "1", -1, 0, 0, -1}, Publish(2, "canary"),
	    {Change::kPromote, 9, "1", "canary", -1, 0, 0, -1}};
	const Catalogue catalogue(parameters);
	EXPECT_EQ(At(catalogue, 5).newest, 1);
	EXPECT_EQ(At(catalogue, 5, "canary").newest, 2);
	EXPECT_EQ(Names(catalogue, At(catalogue, 9).ChainFrom(1)), (Strings{"d2"}));
	EXPECT_EQ(catalogue.OfferedAt(0, 2), 9);
	parameters.publications = {Publish(0), Publish(1, "canary"), {Change::kPromote, 2, "canary", "1", -1, 0, 0, -1}};
	EXPECT_THROW(Catalogue{parameters}, std::invalid_argument);
}

TEST(FleetCatalogue, AWithdrawalPutsEmptyPackagesInTheWay) {
	Parameters parameters = Plain();
	parameters.publications = {Publish(0), Publish(1), Publish(2), {Change::kWithdraw, 5, "1", "", 2, kFull, 70, -1}};
	const Catalogue catalogue(parameters);
	const Edition& last = At(catalogue, 5);
	EXPECT_EQ(last.newest, 4);
	EXPECT_EQ(Names(catalogue, last.ChainFrom(1)), (Strings{"d2", "d3w4", "d4"}));
	EXPECT_EQ(Named(catalogue, "d3w4").bytes, 4U);
	EXPECT_EQ(Named(catalogue, "d3").there.end, 5);
	EXPECT_EQ(Named(catalogue, "v3").there.end, 5);
	EXPECT_EQ(Named(catalogue, "v2").there.end, kNever);
	ASSERT_EQ(catalogue.Withdrawals().size(), 1U);
	EXPECT_EQ(catalogue.Withdrawals()[0].first, 3);
	EXPECT_EQ(catalogue.Withdrawals()[0].last, 3);
}

TEST(FleetCache, ADocumentLivesThroughTheLastOfItsSeconds) {
	Pair pair = PairWith(Plain());
	pair.Document(950); // Fetched at 1.05 s, so that it lives through second 11.
	EXPECT_EQ(pair.AtOrigin(), 1U);
	pair.Document(11'999);
	EXPECT_EQ(pair.AtOrigin(), 1U);
	pair.Document(12'000);
	EXPECT_EQ(pair.AtOrigin(), 2U);
	EXPECT_EQ(pair.tally.Requests(), 3U);
	EXPECT_EQ(pair.tally.Bytes(), 150U);
}

TEST(FleetCache, TheClockMayHaveBegunWithinASecond) {
	Parameters parameters = Plain();
	parameters.begin_milliseconds = 100;
	Pair pair = PairWith(parameters);
	pair.Document(750); // Ready at second 0.95 of that clock.
	pair.Document(10'800);
	EXPECT_EQ(pair.AtOrigin(), 1U);
	pair.Document(10'900);
	EXPECT_EQ(pair.AtOrigin(), 2U);
}

TEST(FleetCache, OnlyTheFirstOfManyIsPassedOn) {
	Pair pair = PairWith(Plain());
	const Answer first = pair.cache.Ask({true, 0}, 0);
	const Answer second = pair.cache.Ask({true, 0}, 20);
	EXPECT_EQ(first.ready, 100);
	EXPECT_EQ(second.ready, 100) << "the second waits for the first";
	EXPECT_EQ(pair.AtOrigin(), 1U);
	EXPECT_EQ(pair.cache.Ask({true, 0}, 20'000).ready, 20'100);
	EXPECT_EQ(pair.cache.Ask({true, 0}, 20'050).ready, 20'050) << "while it is renewed, the old one is served";
	EXPECT_EQ(pair.AtOrigin(), 2U);
}

TEST(FleetCache, WithoutALockAllOfTheFirstMomentArePassedOn) {
	Parameters parameters = Plain();
	parameters.caches.lock = false;
	Pair pair = PairWith(parameters);
	for (const Moment time : {0, 20, 99, 101}) {
		pair.Document(time);
	}
	EXPECT_EQ(pair.AtOrigin(), 3U);
}

TEST(FleetCache, ACacheThatKeepsNoDocumentsPassesAllOn) {
	Parameters parameters = Plain();
	parameters.caches.keeps_documents = false;
	Pair pair = PairWith(parameters);
	pair.Document(0);
	pair.Document(1000);
	EXPECT_EQ(pair.AtOrigin(), 2U);
}

TEST(FleetCache, PackagesAreKeptForEverAndMissingOnesAreNot) {
	Parameters parameters = Plain();
	parameters.publications = {Publish(-kDay), Publish(2000)};
	Pair pair(parameters);
	const Target diff = {false, 2};
	EXPECT_EQ(pair.cache.Ask(diff, 0).status, Status::kNotFound);
	EXPECT_EQ(pair.cache.Ask(diff, 3000).bytes, kDiff);
	EXPECT_EQ(pair.cache.Ask(diff, kDay - 1).bytes, kDiff);
	EXPECT_EQ(pair.AtOrigin(), 2U);
}

TEST(FleetCache, WhatACacheHasOutlivesTheOrigin) {
	Parameters parameters = Plain();
	parameters.outages = {{Place::kOrigin, {kHour, 2 * kHour}, 1, 0}};
	Pair pair = PairWith(parameters);
	EXPECT_EQ(pair.Document(kHour), Status::kUnreachable);
	EXPECT_EQ(pair.Document(2 * kHour), Status::kOk);
	Pair filled = PairWith(parameters);
	filled.Document(0);
	EXPECT_EQ(filled.Document(kHour), Status::kOk);
}

TEST(FleetCache, ACacheThatLosesItsContentsFetchesThemAgain) {
	Parameters parameters = Plain();
	parameters.outages = {{Place::kCacheContents, {kHour, kHour}, 1, 0}};
	Pair pair = PairWith(parameters);
	for (const Moment time : {Moment{0}, kHour - 1, kHour, kHour + kMinute}) {
		pair.cache.Ask({false, 0}, time);
	}
	EXPECT_EQ(pair.AtOrigin(), 2U);
}

TEST(FleetCache, BehindAShieldTheOriginIsAskedOnceForAllCaches) {
	Parameters parameters = Plain();
	parameters.publications = {Publish(-kDay)};
	const Catalogue catalogue(parameters);
	Origin origin(parameters, catalogue);
	Tally shield_tally(kDay);
	Tally tally(kDay);
	Cache shield(parameters, catalogue, origin, shield_tally, 10);
	Cache one(parameters, catalogue, shield, tally, 10);
	Cache other(parameters, catalogue, shield, tally, 10);
	one.Ask({true, 0}, 0);
	other.Ask({true, 0}, 500);
	EXPECT_EQ(tally.Requests(), 2U);
	EXPECT_EQ(shield_tally.Requests(), 2U);
	EXPECT_EQ(origin.Counts().Requests(), 1U);
}

} // namespace tarn::fleet
