#include "publisher/commands/common_options.h"

namespace tarn::publisher {

namespace {

constexpr char kOldKeyHelp[] = "Public key that signed earlier packages; may be repeated";

} // namespace

void AddId(CLI::App& command, std::string& id) {
	command.add_option("ID", id, "The database's id")->required();
}

void AddRepository(CLI::App& command, std::string& directory) {
	command.add_option("--repo", directory, "Directory that the web server serves")->required();
}

void AddNotedUrl(CLI::App& command, std::string& url) {
	command.add_option("--url", url, "Where devices reach the repository; by default as last published");
}

void AddDocument(CLI::App& command, std::string& db_version) {
	CLI::Option* document =
	    command.add_option("--db-version", db_version, "Version of the server's document")->capture_default_str();
	command.add_option("--channel", db_version, "Channel: the name of its document")->excludes(document);
}

void AddPublicKeys(CLI::App& command, std::vector<std::string>& files) {
	command.add_option("--key", files, "Public key that signed the packages; may be repeated")->required();
}

void AddOldKeys(CLI::App& command, std::vector<std::string>& files) {
	const auto add = [&files](const auto& more) { files.insert(files.end(), more.begin(), more.end()); };
	command.add_option_function<std::vector<std::string>>("--old-key", add, kOldKeyHelp);
}

void AddJson(CLI::App& command, bool& json) {
	command.add_flag("--json", json, "Print JSON");
}

} // namespace tarn::publisher
