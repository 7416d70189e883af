// Hostile lines of cron's table: a line is not understood, or runs at a full minute within the next 400 days. The input
// is the line.
#include "entry.h"
#include "host/library/cron.h"
#include "scratch.h"

#include <ctime>
#include <optional>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	constexpr std::time_t kNow = 1'800'000'030;
	constexpr std::time_t kMinute = 60;
	constexpr std::time_t kLongest = std::time_t{400} * 24 * 60 * kMinute;
	const std::optional<std::time_t> next = tarn::ctl::NextCronTime(std::string(tarn::test::Text(data, size)), kNow);
	tarn::test::Require(!next || (*next > kNow && *next <= kNow + kLongest), "a time is near");
	tarn::test::Require(!next || *next % kMinute == 0, "a time is a full minute");
	return 0;
}
