#include "dataupdate/update_error.h"

namespace tarn::dataupdate {

UpdateError::UpdateError(const char* message) : message_(message) {}

UpdateError::UpdateError(const std::string& message) : message_(message) {}

UpdateError::UpdateError(const std::string& message, ErrorCode code) : message_(message), code_(code) {}

UpdateError::~UpdateError() = default;

const char* UpdateError::what() const noexcept {
	return message_.c_str();
}

UpdateError::ErrorCode UpdateError::code() const {
	return code_;
}

} // namespace tarn::dataupdate
