#include "platform/tarncore/download_limiter.h"

#include "base/mutex.h"

namespace tarn::core {
namespace {

struct Limiter {
	Mutex mutex;
	TLIBCDownloadLimiter ask TARN_GUARDED_BY(mutex) = nullptr;
	void* data TARN_GUARDED_BY(mutex) = nullptr;
};

Limiter& HostLimiter() {
	static Limiter limiter;
	return limiter;
}

std::string& LastFailure() {
	thread_local std::string text;
	return text;
}

} // namespace

TLIBCDownloadLimits AskForLimits(const Download& download) {
	TLIBCDownloadLimits limits = {};
	Limiter& limiter = HostLimiter();
	// Held during the call, so that nobody is asked any more once another function has been set.
	const MutexLock guard(limiter.mutex);
	if (limiter.ask != nullptr) {
		limiter.ask(download.url.c_str(), download.file.c_str(), &limits, limiter.data);
	}
	return limits;
}

void KeepDownloadFailure(const std::string& text) {
	LastFailure() = text;
}

} // namespace tarn::core

void TLIBCDownloadLimiterSet(TLIBCDownloadLimiter limiter, void* data) {
	tarn::core::Limiter& own = tarn::core::HostLimiter();
	const tarn::MutexLock guard(own.mutex);
	own.ask = limiter;
	own.data = data;
}

const char* TLIBCDownloadFailureGet() {
	return tarn::core::LastFailure().c_str();
}
