#include "host/library/install_place.h"

#include "base/text.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/json_record.h"

#include <json/value.h>

#include <syslog.h>

#include <filesystem>
#include <system_error>

namespace tarn::ctl {

namespace {

constexpr char kDirectory[] = "directory";

/** No value when there is no record, or none that can be understood. */
std::optional<std::string> ReadInstallPlace(const std::string& id) {
	const Json::Value object = ReadJsonRecord(InstallPlacePath(id));
	const bool names_it = object.isObject() && object[kDirectory].isString();
	return names_it ? std::optional(object[kDirectory].asString()) : std::nullopt;
}

/** No value for a database without a directory; what is wrong with its settings is told by whoever needs more. */
std::optional<std::string> ConfiguredPlace(const Services& services, const std::string& id) {
	try {
		const auto config = services.config->GetDatabaseConfig(id);
		return config->GetRootDirectory().empty() ? std::nullopt : std::optional(config->GetInstallPrefix());
	} catch (const dataupdate::UpdateError&) {
		return std::nullopt;
	}
}

/**
 * What an absolute name of a recorded file says: up to the directory of the database, where the name shows it. It must
 * not be any directory above, because people delete what they are told is not used.
 */
std::string PlaceOf(const std::string& name, const std::string& id) {
	for (std::string place : {dataupdate::MainDirPath(""), std::string("/var/db")}) {
		place += "/" + id;
		if (const std::size_t at = name.find(place + "/"); at != std::string::npos) {
			return name.substr(0, at + place.size());
		}
	}
	return std::filesystem::path(name).parent_path().string();
}

/** Also of one directory by two names, as through a link to a volume. */
bool IsSame(const std::string& place, const std::string& configured) {
	std::error_code missing;
	return place == configured || std::filesystem::equivalent(place, configured, missing);
}

std::optional<std::string> FindPlaceOutside(
    const std::string& directory, const dataupdate::FileList& files, const std::string& id) {
	for (std::size_t at = 0; at < files.Size(); ++at) {
		const std::string name(files.Name(at));
		if (StartsWith(name, "/") && !StartsWith(name, directory + "/")) {
			const std::string place = PlaceOf(name, id);
			return IsSame(place, directory) ? std::nullopt : std::optional(place);
		}
	}
	return std::nullopt;
}

/** The function tells what the recorded names say of the configured directory. */
std::optional<std::string> FindOldPlaceBy(const Services& services, const std::string& id,
    const std::function<std::optional<std::string>(const std::string& directory)>& find_by_names) {
	const std::optional<std::string> configured = ConfiguredPlace(services, id);
	if (!configured) {
		return std::nullopt;
	}
	if (const std::optional<std::string> place = ReadInstallPlace(id)) {
		return IsSame(*place, *configured) ? std::nullopt : place;
	}
	return find_by_names(*configured);
}

} // namespace

std::string InstallPlacePath(const std::string& id) {
	return dataupdate::StatePath(id, "installed_in.json");
}

void RecordInstallPlace(const std::string& id, const std::string& directory) {
	Json::Value object(Json::objectValue);
	object[kDirectory] = directory;
	WriteJsonRecord(InstallPlacePath(id), object);
}

void MoveInstallPlace(const std::string& id, const std::function<std::string(const std::string& directory)>& move) {
	const std::optional<std::string> place = ReadInstallPlace(id);
	if (!place) {
		return;
	}
	if (const std::string moved = move(*place); moved != *place) {
		RecordInstallPlace(id, moved);
	}
}

std::optional<std::string> FindOldPlace(
    const Services& services, const std::string& id, const dataupdate::InstalledRecord& recorded) {
	if (recorded.data_version == -1) {
		return std::nullopt;
	}
	return FindOldPlaceBy(
	    services, id, [&](const std::string& directory) { return FindPlaceOutside(directory, recorded.files, id); });
}

std::optional<std::string> FindOldPlace(const Services& services, const std::string& id) {
	return FindOldPlaceBy(services, id, [&](const std::string& directory) {
		return FindPlaceOutside(directory, ReadRecorded(services, id).files, id);
	});
}

void LogLeftBehind(const std::string& id, const std::optional<std::string>& old_place, const std::string& directory) {
	if (old_place) {
		syslog(LOG_NOTICE, "%s is installed in %s now; nothing uses what was installed in %s any more", id.c_str(),
		    directory.c_str(), old_place->c_str());
	}
}

std::string DescribeOldPlace(const Services& services, const std::string& id, const std::string& old_place) {
	return "it is installed in " + old_place + ", but databases.conf has it in " +
	       ConfiguredPlace(services, id).value_or("no directory");
}

} // namespace tarn::ctl
