// Simulates a fleet of devices, as a file of parameters describes it, and prints what came of it as JSON.
//
// fleet_model FILE

#include "bench/model/results.h"

#include <json/reader.h>
#include <json/writer.h>

#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

Json::Value Read(const std::string& path) {
	std::ifstream file(path);
	if (!file) {
		throw std::runtime_error("cannot read " + path);
	}
	Json::Value json;
	std::string errors;
	if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &json, &errors)) {
		throw std::runtime_error(path + ": " + errors);
	}
	return json;
}

} // namespace

int main(int count, char** arguments) {
	if (count != 2) {
		std::cerr << "usage: fleet_model FILE\n";
		return 2;
	}
	try {
		const tarn::fleet::Parameters parameters = tarn::fleet::ReadParameters(Read(arguments[1]));
		tarn::fleet::Fleet fleet(parameters);
		fleet.Run();
		Json::StreamWriterBuilder writer;
		writer["indentation"] = "";
		std::cout << Json::writeString(writer, tarn::fleet::ResultsOf(parameters, fleet)) << '\n';
	} catch (const std::exception& error) {
		std::cerr << "fleet_model: " << error.what() << '\n';
		return 1;
	}
	return 0;
}
