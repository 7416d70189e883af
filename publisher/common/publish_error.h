/** @file Failures, as sentences for the person at the terminal. */
#ifndef PUBLISHER_COMMON_PUBLISH_ERROR_H
#define PUBLISHER_COMMON_PUBLISH_ERROR_H

#include <stdexcept>

namespace tarn::publisher {

/** What could not be done and why, in one sentence. */
class PublishError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/** An option has a value that can never work. */
class UsageError : public PublishError {
public:
	using PublishError::PublishError;
};

/** What PackageReader throws for a package that none of its keys has signed. */
class ForeignPackage : public PublishError {
public:
	using PublishError::PublishError;
};

} // namespace tarn::publisher

#endif
