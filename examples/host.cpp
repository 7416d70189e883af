#include <dataupdate/file_lock.h>
#include <dataupdate/paths.h>
#include <dataupdate/update.h>

#include <iostream>

int main() try {
	using namespace tarn::dataupdate;
	const auto io = std::make_shared<IOUtils>();
	const auto service = std::make_shared<ServiceConfig>(std::make_shared<Config>(io));
	{
		const FileLock no_move(kUpdateAnyLock, kLockTimeout); // A volume that databases leave must not be chosen.
		InitService();
	}
	const Update update(std::make_shared<Updater>(), std::make_shared<InfoGetter>(io, service), service);
	update.UpdateAllProjects();
} catch (const std::exception& error) {
	std::cerr << "update failed: " << error.what() << '\n';
	return 1;
}
