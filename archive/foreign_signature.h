/** @file The failure of an archive that somebody else has signed. */
#ifndef ARCHIVE_FOREIGN_SIGNATURE_H
#define ARCHIVE_FOREIGN_SIGNATURE_H

#include "base/error.h"

namespace tarn::archive {

/** No trusted key has signed an archive, which may be whole all the same. */
class ForeignSignature : public Error {
public:
	using Error::Error;
};

} // namespace tarn::archive

#endif
