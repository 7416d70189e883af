/** @file Names of members and targets of links, and which of them are allowed. */
#ifndef ARCHIVE_MEMBER_PATH_H
#define ARCHIVE_MEMBER_PATH_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

/**
 * A member's name in its components, none of which is empty, "." or "..". No components at all mean the destination
 * itself.
 */
using MemberPath = std::vector<std::string>;

/** Components that a name may have: programs that walk trees often hold a descriptor or a stack frame for each. */
constexpr std::size_t kMaxDepth = 128;

/**
 * Splits a name; empty and "." components are dropped.
 *
 * @throws Error for an empty, absolute or overlong name, for one with "..", and for more than kMaxDepth
 * components
 */
[[nodiscard]] MemberPath ParseMemberName(std::string_view name);

/** Components joined by "/". */
std::string Joined(const MemberPath& path);

/**
 * Checks that a symbolic link cannot lead out of the tree: a relative target, ".." only at its beginning and no more
 * often than the link lies deep. Since no link in the tree leads out, none can be used to make a longer way out.
 *
 * @param link    where the link lies
 * @param target  what it holds
 * @throws Error
 */
void CheckLinkTarget(const MemberPath& link, std::string_view target);

} // namespace tarn::archive

#endif
