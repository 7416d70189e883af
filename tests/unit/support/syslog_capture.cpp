#include "syslog_capture.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace tarn::test {
namespace {

struct Store {
	std::mutex mutex;
	bool active = false;
	std::vector<LogLine> lines;
};

Store& TheStore() {
	static Store store;
	return store;
}

[[gnu::format(printf, 2, 0)]] void Record(int priority, const char* format, std::va_list arguments) {
	std::va_list copy;
	va_copy(copy, arguments);
	const int length = std::vsnprintf(nullptr, 0, format, copy);
	va_end(copy);
	std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
	std::vsnprintf(text.data(), text.size() + 1, format, arguments);
	Store& store = TheStore();
	const std::lock_guard<std::mutex> guard(store.mutex);
	if (store.active) {
		store.lines.push_back({static_cast<int>(LOG_PRI(static_cast<unsigned int>(priority))), text});
	}
}

} // namespace

SyslogCapture::SyslogCapture() {
	Store& store = TheStore();
	const std::lock_guard<std::mutex> guard(store.mutex);
	store.active = true;
	store.lines.clear();
}

SyslogCapture::~SyslogCapture() {
	Store& store = TheStore();
	const std::lock_guard<std::mutex> guard(store.mutex);
	store.active = false;
}

std::vector<LogLine> SyslogCapture::Lines() const {
	Store& store = TheStore();
	const std::lock_guard<std::mutex> guard(store.mutex);
	return store.lines;
}

std::size_t SyslogCapture::Count(int priority, const std::vector<std::string>& texts) const {
	const std::vector<LogLine> lines = Lines();
	return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
		return line.priority == priority && std::all_of(texts.begin(), texts.end(), [&](const std::string& text) {
			return line.text.find(text) != std::string::npos;
		});
	}));
}

#define TARN_EXPORTED [[gnu::visibility("default")]]

// In front of the C library's functions: the executable's symbols win, for shared libraries too.
extern "C" {

TARN_EXPORTED void syslog(int priority, const char* format, ...) {
	std::va_list arguments;
	va_start(arguments, format);
	Record(priority, format, arguments);
	va_end(arguments);
}

TARN_EXPORTED void vsyslog(int priority, const char* format, std::va_list arguments) {
	Record(priority, format, arguments);
}

// What fortified builds call in their place.
TARN_EXPORTED [[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
	std::va_list arguments;
	va_start(arguments, format);
	Record(priority, format, arguments);
	va_end(arguments);
}

TARN_EXPORTED [[gnu::format(printf, 3, 0)]] void __vsyslog_chk(
    int priority, int /*flag*/, const char* format, std::va_list arguments) {
	Record(priority, format, arguments);
}

} // extern "C"

} // namespace tarn::test
