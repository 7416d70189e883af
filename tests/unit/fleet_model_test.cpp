#include "bench/model/fleet.h"
#include "bench/model/results.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <sstream>
#include <stdexcept>
#include <string>

namespace tarn::fleet {

namespace {

Json::Value Parsed(const std::string& text) {
	Json::Value json;
	std::istringstream stream(text);
	stream >> json;
	return json;
}

/** Four runs a day of a thousand devices, one of ten on another channel, and a release after a day. */
Json::Value Plain() {
	return Parsed(R"({"seed": 3, "devices": 1000, "length": 259200,
		"timer": {"period": 21600, "delay": 21600},
		"caches": {"count": 2, "document_seconds": 300, "fetch": 0.1},
		"document": {"bytes": 500, "bytes_each_diff": 100, "empty_diff_bytes": 400},
		"habits": [{"name": "always on"}], "zones": [{}],
		"channels": [{"name": "1", "share": 0.9}, {"name": "canary", "share": 0.1}],
		"publications": [
			{"change": "publish", "at": -100, "channel": "1", "full_bytes": 50000},
			{"change": "promote", "at": -100, "channel": "canary", "from": "1"},
			{"change": "publish", "at": 86400, "channel": "1", "full_bytes": 50000, "diff_bytes": 1000}]})");
}

Json::Value Simulated(const Json::Value& json) {
	const Parameters parameters = ReadParameters(json);
	Fleet fleet(parameters);
	fleet.Run();
	return ResultsOf(parameters, fleet);
}

/** Whether reading fails with a sentence that names this. */
testing::AssertionResult IsRefusedFor(const Json::Value& json, const std::string& name) {
	try {
		ReadParameters(json);
	} catch (const std::invalid_argument& error) {
		const std::string text = error.what();
		return text.find(name) != std::string::npos ? testing::AssertionSuccess() : testing::AssertionFailure() << text;
	}
	return testing::AssertionFailure() << "taken";
}

} // namespace

TEST(FleetModel, EachRunIsARequestForTheDocumentAndEachReleaseOneForAPackage) {
	const Json::Value result = Simulated(Plain());
	const Json::UInt64 runs = result["doings"]["runs"].asUInt64();
	EXPECT_NEAR(static_cast<double>(runs), 1000 * 12, 250);
	const Json::UInt64 chains = result["doings"]["chains"].asUInt64();
	const Json::UInt64 documents = runs - result["doings"]["fresh_documents"].asUInt64();
	EXPECT_EQ(result["caches"]["requests"].asUInt64(), documents + chains);
	EXPECT_EQ(chains, result["versions"][1]["followers"].asUInt64());
	EXPECT_EQ(result["doings"]["chain_bytes"].asUInt64(), chains * 1000);
	EXPECT_EQ(result["doings"]["fulls"].asUInt64(), 0U);
}

TEST(FleetModel, TheSameSeedGivesTheSameAndAnotherSeedNot) {
	Json::Value other = Plain();
	other["seed"] = 4;
	EXPECT_EQ(Simulated(Plain()), Simulated(Plain()));
	EXPECT_NE(Simulated(Plain())["caches"], Simulated(other)["caches"]);
}

TEST(FleetModel, HalfOfTheDevicesHaveAReleaseAfterHalfOfTheDelay) {
	const Json::Value result = Simulated(Plain());
	const Json::Value& until = result["versions"][1]["seconds_until"];
	EXPECT_NEAR(until["50"].asDouble(), 3 * 3600, 900);
	EXPECT_NEAR(until["90"].asDouble(), 5.4 * 3600, 900);
	// Who asks while the caches still have the old document comes a period later.
	EXPECT_LT(until["99"].asDouble(), 12.2 * 3600);
	EXPECT_EQ(result["versions"][1]["installed"], result["versions"][1]["followers"]);
}

TEST(FleetModel, TheOriginIsAskedByEachCacheOnceInALifetime) {
	Json::Value json = Plain();
	json["devices"] = 20000;
	const Json::Value result = Simulated(json);
	// Two caches, each with two documents, that expire after 300 to 302 seconds and are wanted again soon.
	const double most = 2 * 2 * 259200 / 300.0;
	EXPECT_LT(result["origin"]["requests"].asDouble(), most + 10);
	EXPECT_GT(result["origin"]["requests"].asDouble(), most * 0.9);
}

TEST(FleetModel, DevicesThatJoinTakeTheFullPackage) {
	Json::Value json = Plain();
	json["joining_share"] = 0.2;
	const Json::Value doings = Simulated(json)["doings"];
	EXPECT_NEAR(doings["fulls"].asDouble(), 200, 50);
	EXPECT_EQ(doings["full_bytes"].asUInt64(), doings["fulls"].asUInt64() * 50000);
}

TEST(FleetModel, AWithdrawnVersionIsTakenByThoseAloneThatHaveAnOldDocument) {
	Json::Value json = Plain();
	json["publications"].append(Parsed(
	    R"({"change": "withdraw", "at": 90000, "channel": "1", "to": 1, "full_bytes": 50000, "diff_bytes": 1000})"));
	const Json::Value result = Simulated(json);
	const Json::Value& withdrawal = result["withdrawals"][0];
	// Of 900 devices, those of one hour of six, and after that those of the caches' five minutes.
	EXPECT_NEAR(withdrawal["took_before"].asDouble(), 150, 45);
	EXPECT_LT(withdrawal["took_after"].asDouble(), 40);
	EXPECT_EQ(result["versions"][2]["installed"], result["versions"][2]["followers"]);
	EXPECT_EQ(result["doings"]["failed"].asUInt64(), 0U);
}

TEST(FleetModel, AnOutageOfTheNetworkFailsRunsAndNothingElse) {
	Json::Value json = Plain();
	json["outages"].append(Parsed(R"({"place": "network", "from": 86400, "to": 108000})"));
	const Json::Value result = Simulated(json);
	EXPECT_NEAR(result["doings"]["unreachable"].asDouble(), 1000, 30);
	EXPECT_GT(result["versions"][1]["seconds_until"]["50"].asDouble(), 6 * 3600);
}

TEST(FleetModel, AScriptTellsWhichDeviceRunsWhen) {
	Json::Value json = Plain();
	json["devices"] = 2;
	json["device_document_seconds"] = 10;
	json["channel_of"] = Parsed(R"(["1", "canary"])");
	json["script"] = Parsed("[[5, 0], [6, 1], [7, 0], [20, 0], [86500, 0], [86500, 1]]");
	const Json::Value result = Simulated(json);
	EXPECT_EQ(result["doings"]["runs"].asUInt64(), 6U);
	EXPECT_EQ(result["doings"]["fresh_documents"].asUInt64(), 1U);
	EXPECT_EQ(result["doings"]["fulls"].asUInt64(), 2U);
	EXPECT_EQ(result["doings"]["chains"].asUInt64(), 1U);
}

TEST(FleetModel, AWrongParameterIsRefusedByName) {
	Json::Value json = Plain();
	json["timer"]["dealy"] = 5;
	EXPECT_TRUE(IsRefusedFor(json, "timer.dealy is unknown"));
	json = Plain();
	json["devices"] = "many";
	EXPECT_TRUE(IsRefusedFor(json, "parameters.devices is no number"));
	json = Plain();
	json["channels"][0]["share"] = 0.5;
	EXPECT_TRUE(IsRefusedFor(json, "the shares of channels"));
	json = Plain();
	json["publications"][0]["change"] = "burn";
	EXPECT_TRUE(IsRefusedFor(json, "publications[0].change cannot be \"burn\""));
	json = Plain();
	json["script"] = Parsed("[[5, 1000]]");
	EXPECT_TRUE(IsRefusedFor(json, "script: a run of device 1000"));
}

} // namespace tarn::fleet
