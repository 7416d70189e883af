#include "publisher/commands/key_commands.h"

#include "archive/signing_key.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"
#include "publisher/packages/package.h"

#include <CLI/CLI.hpp>
#include <json/json.h>

namespace tarn::publisher {

namespace {

void RunKeygen(const std::string& prefix, std::ostream& out) {
	const std::string fingerprint = archive::GenerateKeyFiles(prefix);
	out << "Wrote " << prefix << ".key (keep it secret) and " << prefix << ".pub (" << fingerprint << ").\n";
}

void PrintFingerprintsJson(const std::vector<archive::TrustedKey>& keys, std::ostream& out) {
	Json::Value list(Json::arrayValue);
	for (const archive::TrustedKey& trusted : keys) {
		Json::Value item(Json::objectValue);
		item["file"] = trusted.name;
		item["fingerprint"] = trusted.key.Fingerprint();
		list.append(std::move(item));
	}
	out << JsonText(list, "\t") << "\n";
}

void RunFingerprint(const KeyCommandOptions& options, std::ostream& out) {
	const std::vector<archive::TrustedKey> keys = LoadPublicKeys(options.public_keys);
	if (options.json) {
		PrintFingerprintsJson(keys, out);
		return;
	}
	for (const archive::TrustedKey& trusted : keys) {
		out << trusted.key.Fingerprint() << "  " << trusted.name << "\n";
	}
}

} // namespace

void AddKeyCommands(CLI::App& app, KeyCommandOptions& options) {
	CLI::App* keygen = app.add_subcommand("keygen", "Make a key pair: PREFIX.key signs, PREFIX.pub goes to devices");
	keygen->add_option("PREFIX", options.prefix, "Path of the two files without their endings")->required();
	CLI::App* fingerprint = app.add_subcommand("fingerprint", "Print the fingerprints of public keys, to be compared");
	fingerprint->add_option("FILE", options.public_keys, "Public keys")->required();
	AddJson(*fingerprint, options.json);
}

bool RunKeyCommand(const CLI::App& app, const KeyCommandOptions& options, std::ostream& out) {
	if (app.got_subcommand("keygen")) {
		RunKeygen(options.prefix, out);
		return true;
	}
	if (app.got_subcommand("fingerprint")) {
		RunFingerprint(options, out);
		return true;
	}
	return false;
}

} // namespace tarn::publisher
