#include "host/terminal/terminal.h"

#include "base/text.h"

namespace tarn::ctl {

namespace {

constexpr char kClearLine[] = "\r\x1b[K";
// Enough for any link and path of a sane server, little enough that a hostile one doesn't flood the log.
constexpr std::size_t kLongestSentence = 2000;

} // namespace

Terminal::Terminal(std::ostream& out, std::ostream& err, bool draws) : out_(out), err_(err), draws_(draws) {}

void Terminal::Say(const std::string& text) {
	const MutexLock guard(mutex_);
	ClearLine();
	out_ << text << std::flush;
}

void Terminal::Complain(const std::string& sentence) {
	const MutexLock guard(mutex_);
	ClearLine();
	err_ << "tarndbudctl: " << PlainAscii(sentence, kLongestSentence) << '\n' << std::flush;
}

void Terminal::Draw(const std::string& line) {
	const MutexLock guard(mutex_);
	if (!draws_) {
		return;
	}
	if (line.empty()) {
		ClearLine();
		return;
	}
	err_ << kClearLine << line << std::flush;
	drawn_ = true;
}

bool Terminal::Good() {
	const MutexLock guard(mutex_);
	return out_.good();
}

void Terminal::ClearLine() {
	if (drawn_) {
		err_ << kClearLine << std::flush;
		drawn_ = false;
	}
}

} // namespace tarn::ctl
