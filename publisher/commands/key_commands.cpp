#include "archive/signing_key.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"
#include "publisher/packages/package.h"

namespace tarn::publisher {

namespace {

struct Options {
	std::string prefix;
	std::vector<std::string> public_keys;
	bool json = false;
};

int RunKeygen(const Options& options, const Streams& streams) {
	const std::string fingerprint = archive::GenerateKeyFiles(options.prefix);
	streams.out << "Wrote " << options.prefix << ".key (keep it secret) and " << options.prefix << ".pub ("
	            << fingerprint << ").\n";
	return kDone;
}

void PrintFingerprintsJson(const std::vector<archive::TrustedKey>& keys, std::ostream& out) {
	const Json::Value list = JsonArray(keys, [](const archive::TrustedKey& trusted) {
		return JsonObject({{"file", trusted.name}, {"fingerprint", trusted.key.Fingerprint()}});
	});
	out << JsonText(list, "\t") << "\n";
}

int RunFingerprint(const Options& options, const Streams& streams) {
	const std::vector<archive::TrustedKey> keys = LoadPublicKeys(options.public_keys);
	if (options.json) {
		PrintFingerprintsJson(keys, streams.out);
		return kDone;
	}
	for (const archive::TrustedKey& trusted : keys) {
		streams.out << trusted.key.Fingerprint() << "  " << trusted.name << "\n";
	}
	return kDone;
}

} // namespace

void AddKeyCommands(CLI::App& app, Command& given) {
	const auto options = std::make_shared<Options>();
	CLI::App* keygen = app.add_subcommand("keygen", "Make a key pair: PREFIX.key signs, PREFIX.pub goes to devices");
	keygen->add_option("PREFIX", options->prefix, "Path of the two files without their endings")->required();
	OnGiven(*keygen, given, options, RunKeygen);
	CLI::App* fingerprint = app.add_subcommand("fingerprint", "Print the fingerprints of public keys, to be compared");
	fingerprint->add_option("FILE", options->public_keys, "Public keys")->required();
	AddJson(*fingerprint, options->json);
	OnGiven(*fingerprint, given, options, RunFingerprint);
}

} // namespace tarn::publisher
