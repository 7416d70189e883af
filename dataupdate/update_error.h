/** @file The library's one exception type. */
#ifndef DATAUPDATE_UPDATE_ERROR_H
#define DATAUPDATE_UPDATE_ERROR_H

#include "dataupdate/export.h"

#include <exception>
#include <string>

namespace tarn::dataupdate {

/**
 * A failure that the library reports on purpose: a message for people and a code for the one situation that callers
 * tell apart. Always thrown by value and caught by reference.
 */
class TARNDBUD_EXPORT UpdateError : public std::exception {
public:
	/** The situations that callers tell apart by a number. */
	enum ErrorCode : int {
		kFailure = 0,      ///< The message says what went wrong.
		kFileNotExist = 1, ///< The JSON file to read does not exist; the normal state before a first installation.
	};

	/** @param message  text for what(); must not be null */
	UpdateError(const char* message);
	/** @param message  text for what() */
	UpdateError(const std::string& message);
	/** Both as given. */
	UpdateError(const std::string& message, ErrorCode code);
	/** Copies both. */
	UpdateError(const UpdateError&) = default;
	/** Copies both. */
	UpdateError& operator=(const UpdateError&) = default;
	~UpdateError() override;

	/** The message exactly as given to the constructor. */
	const char* what() const noexcept override;
	/** The code as given to the constructor, else kFailure. */
	virtual ErrorCode code() const;

private:
	std::string message_;
	ErrorCode code_ = kFailure;
};

} // namespace tarn::dataupdate

#endif
