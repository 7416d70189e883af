/** @file A kit in the server's place: its document, and its packages where others would be downloaded. */
#ifndef HOST_LIBRARY_KIT_OFFER_H
#define HOST_LIBRARY_KIT_OFFER_H

#include "dataupdate/download_source.h"
#include "host/library/services.h"

#include <memory>
#include <string>
#include <vector>

namespace tarn::ctl {

/**
 * An open kit. Nothing of it is believed: what it offers is checked as what a server offers, and the server's cached
 * document is neither read nor written.
 */
class KitOffer {
public:
	/** Throws CommandError naming the file when that is no whole kit. */
	explicit KitOffer(const std::string& path);

	/** The databases of which there are packages, in byte order. */
	[[nodiscard]] std::vector<std::string> Ids() const;
	/** The same services, for which the kit's document is the server's. */
	[[nodiscard]] Services InPlaceOfServer(const Services& services) const;
	/** Its packages, to be used in a DownloadSourceScope; they are found by the links that the services have told. */
	[[nodiscard]] std::shared_ptr<const dataupdate::DownloadSource> Packages() const;

private:
	class Source;
	class Info;

	std::shared_ptr<Source> source_;
};

} // namespace tarn::ctl

#endif
