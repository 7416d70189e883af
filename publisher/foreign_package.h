/** @file The failure of a package that somebody else has signed. */
#ifndef PUBLISHER_FOREIGN_PACKAGE_H
#define PUBLISHER_FOREIGN_PACKAGE_H

#include "publisher/publish_error.h"

namespace tarn::publisher {

/** What PackageReader throws for a package that none of its keys has signed. */
class ForeignPackage : public PublishError {
public:
	using PublishError::PublishError;
};

} // namespace tarn::publisher

#endif
