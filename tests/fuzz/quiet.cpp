// The system log of a fuzz engine: lines are made, so that a wrong format is found, and go nowhere.
#include <syslog.h>

#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

__attribute__((format(printf, 1, 0))) void Drop(const char* format, va_list arguments) {
	constexpr std::size_t kLongest = 4096;
	std::array<char, kLongest> line{};
	[[maybe_unused]] const int ignored = std::vsnprintf(line.data(), line.size(), format, arguments);
}

} // namespace

extern "C" __attribute__((visibility("default"))) void syslog(int /*priority*/, const char* format, ...) {
	va_list arguments;
	va_start(arguments, format);
	Drop(format, arguments);
	va_end(arguments);
}

extern "C" __attribute__((visibility("default"))) void vsyslog(
    int /*priority*/, const char* format, va_list arguments) {
	Drop(format, arguments);
}
