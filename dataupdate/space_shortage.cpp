#include "dataupdate/space_shortage.h"

#include <utility>

namespace tarn::dataupdate {

namespace {

thread_local std::optional<SpaceShortage> last;

} // namespace

std::optional<SpaceShortage> LastSpaceShortage() {
	return last;
}

void NoteSpaceShortage(SpaceShortage shortage) {
	last = std::move(shortage);
}

} // namespace tarn::dataupdate
