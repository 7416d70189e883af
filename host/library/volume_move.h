/** @file A move of the databases to another volume, seen from outside: the library only logs what became of it. */
#ifndef HOST_LIBRARY_VOLUME_MOVE_H
#define HOST_LIBRARY_VOLUME_MOVE_H

#include "dataupdate/volume_handler.h"
#include "host/library/volume_content.h"

#include <exception>

namespace tarn::ctl {

/**
 * Handles the end of a volume as the library does. The databases are marked as unfinished while they move, so that they
 * are installed anew if the move is killed: parts of them may then be on either volume.
 */
class VolumeMove : public dataupdate::VolumeHandler {
public:
	enum class Outcome {
		kNoTarget, ///< No other volume was suitable, or nothing had to be done.
		kMoved,
		kCopied,  ///< All of it is on the other volume, which is in use, but not all could be deleted here.
		kStayed,  ///< All of it is here still, and no volume is in use.
		kDivided, ///< Nobody knows; no volume is in use, and the databases are marked.
	};

	VolumeMove(const Services& services, std::string volume);

	std::string FindSuitableVolume(std::string exclude) const override;
	/**
	 * Moves, and puts the records right. Throws what the library throws, and CommandError when nothing could be begun
	 * for another reason than that no other volume is suitable.
	 */
	Outcome Run();
	/** Where to; empty before, and when no other volume was suitable. */
	const std::string& Target() const { return target_; }

private:
	void Begin() const;
	Outcome JudgeCause() const;
	Outcome Judge() const;
	void Settle() const;
	void TakeBack() const;

	const Services& services_;
	std::string volume_;
	mutable std::string target_;
	mutable std::vector<std::string> marked_;
	mutable std::optional<Content> before_;
	mutable bool target_is_free_ = false;
	/** What the library logs and swallows. */
	mutable std::exception_ptr cause_;
};

} // namespace tarn::ctl

#endif
