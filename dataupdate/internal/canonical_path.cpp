#include "dataupdate/internal/canonical_path.h"

#include <boost/filesystem/operations.hpp>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

fs::path CanonicalPath(const fs::path& path) {
	return path.is_absolute() ? fs::canonical(path, "/") : fs::canonical(path);
}

} // namespace tarn::dataupdate
