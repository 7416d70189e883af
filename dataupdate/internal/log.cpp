#include "dataupdate/internal/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tarn::dataupdate {

namespace {

struct Free {
	void operator()(char* text) const { std::free(text); } // NOLINT(cppcoreguidelines-*): vasprintf's memory
};

} // namespace

void LogAt(int priority, const char* source, int line, const char* format, ...) noexcept {
	va_list arguments;
	va_start(arguments, format);
	char* formatted = nullptr;
	const int length = vasprintf(&formatted, format, arguments);
	va_end(arguments);
	const std::unique_ptr<char, Free> text(length < 0 ? nullptr : formatted);
	syslog(priority, "%s:%d %s", source, line, text ? text.get() : format);
}

} // namespace tarn::dataupdate
