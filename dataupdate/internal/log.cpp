#include "dataupdate/internal/log.h"

#include "base/handle.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace tarn::dataupdate {

void LogAt(int priority, const char* source, int line, const char* format, ...) noexcept {
	va_list arguments;
	va_start(arguments, format);
	char* formatted = nullptr;
	const int length = vasprintf(&formatted, format, arguments);
	va_end(arguments);
	const Handle<char, std::free> text(length < 0 ? nullptr : formatted);
	syslog(priority, "%s:%d %s", source, line, text ? text.get() : format);
}

} // namespace tarn::dataupdate
