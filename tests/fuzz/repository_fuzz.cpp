// Documents of a repository that somebody has changed by hand: what the publisher takes it writes again as it was, and
// a new version changes one entry. The input is the document.
#include "entry.h"
#include "publisher/repository/document.h"
#include "scratch.h"

#include <optional>
#include <string>

namespace {

using tarn::publisher::Document;
using tarn::publisher::Entry;
using tarn::test::Require;

std::optional<Entry> Find(const Document& document, const std::string& id) {
	try {
		return document.Find(id);
	} catch (const tarn::publisher::DamagedDocument& error) {
		Require(*error.what() != '\0', "a refusal has a reason");
		return std::nullopt;
	}
}

void PublishNext(Document document, const std::string& id, const Entry& entry) {
	Entry next = entry;
	next.data_version = entry.data_version / 2;
	document.Put(id, next);
	const std::optional<Entry> found = Document::FromText("written", document.Text()).Find(id);
	Require(found && found->data_version == next.data_version && found->download_link == next.download_link &&
	            found->diff_files.size() == next.diff_files.size(),
	    "what was put can be found");
}

void CheckDocument(const Document& document) {
	const std::string text = document.Text();
	Require(Document::FromText("written", text).Text() == text, "what is taken can be written");
	for (const std::string& id : document.Ids()) {
		if (const std::optional<Entry> entry = Find(document, id)) {
			PublishNext(document, id, *entry);
		}
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	try {
		CheckDocument(Document::FromText("document", std::string(tarn::test::Text(data, size))));
	} catch (const tarn::publisher::DamagedDocument& error) {
		Require(*error.what() != '\0', "a refusal has a reason");
	}
	return 0;
}
