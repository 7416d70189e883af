// Hostile servers behind the HTTP client: of the client's account of headers and complaints, only a size and one
// printable line are taken. The input is the account.
#include "entry.h"
#include "host/library/package_size.h"
#include "platform/tarncore/complaints.h"
#include "scratch.h"

#include <algorithm>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	constexpr std::size_t kLongest = 303;
	const std::string account(tarn::test::Text(data, size));
	const std::string complaint = tarn::core::LastComplaint(account);
	tarn::test::Require(complaint.size() <= kLongest, "a complaint is bounded");
	tarn::test::Require(
	    std::all_of(complaint.begin(), complaint.end(), [](char byte) { return byte >= ' ' && byte < 127; }),
	    "a complaint is printable");
	static_cast<void>(tarn::ctl::SizeInHeaders(account));
	return 0;
}
