#include "publisher/sql_lines.h"

#include "base/text.h"

#include <array>
#include <iterator>
#include <string>
#include <string_view>

namespace tarn::publisher {

namespace {

constexpr std::string_view kBreakInText = "'||char(10)||'";

// The words of sqldiff and of the shell, which write them in capitals.
bool IsTransaction(const std::string& statement) {
	return StartsWith(statement, "BEGIN") || StartsWith(statement, "COMMIT") || StartsWith(statement, "END");
}

/** Follows SQL byte by byte; a doubled quote within quotes ends and begins them again, which comes to the same. */
class Splitter {
public:
	explicit Splitter(std::ostream& lines) : lines_(lines) {}

	bool Take(char byte) {
		if (byte == '\0') {
			return false;
		}
		return quote_ != '\0' ? TakeQuoted(byte) : TakePlain(byte);
	}
	/** Whether all statements were ended. */
	bool Finish() const { return quote_ == '\0' && statement_.empty() && lines_.good(); }

private:
	bool TakeQuoted(char byte) {
		if (byte == '\n') {
			statement_ += kBreakInText;
			return quote_ == '\'';
		}
		statement_ += byte;
		if (byte == quote_) {
			quote_ = '\0';
		}
		return true;
	}

	bool TakePlain(char byte) {
		if (byte == '\n' || byte == '\r' || byte == ' ') {
			if (!statement_.empty()) {
				statement_ += ' ';
			}
			return true;
		}
		const bool is_comment = !statement_.empty() && ((byte == '-' && statement_.back() == '-') ||
		                                                   (byte == '*' && statement_.back() == '/'));
		statement_ += byte;
		if (byte == '\'' || byte == '"' || byte == '`') {
			quote_ = byte;
		} else if (byte == '[') {
			quote_ = ']';
		} else if (byte == ';') {
			EndStatement();
		}
		return !is_comment;
	}

	void EndStatement() {
		if (!IsTransaction(statement_)) {
			lines_ << statement_ << '\n';
		}
		statement_.clear();
	}

	std::ostream& lines_;
	std::string statement_;
	char quote_ = '\0'; // what ends the quotes that are open
};

} // namespace

bool WriteStatementPerLine(std::istream& script, std::ostream& lines) {
	constexpr std::size_t kBlock = std::size_t{64} << 10U;
	std::array<char, kBlock> block{};
	Splitter splitter(lines);
	while (script.read(block.data(), block.size()), script.gcount() > 0) {
		for (const char byte : std::string_view(block.data(), static_cast<std::size_t>(script.gcount()))) {
			if (!splitter.Take(byte)) {
				return false;
			}
		}
	}
	return script.eof() && splitter.Finish();
}

} // namespace tarn::publisher
