// An NT name, checked. What comes out can't say "up": no component of it is empty, "." or "..".
//
//   \??\/home/me/docs\sub\file     an absolute POSIX path; '\' and '/' both separate
//   \??\C:\sub\file                a drive letter
//   \??\UNC\server\share           STATUS_BAD_NETWORK_PATH
//
// The path of a share and that of a request are joined as they come. Where the share is the root directory
// the joint has two separators; that one empty component, the first of all, is let pass. Of a name that
// belongs to a share the root is known.
#pragma once

#include "ntposix/ShareRoots.h"
#include "platform/NtStatus.h"

#include <memory>
#include <string>
#include <string_view>

namespace fodr::ntposix {

class NtName {
public:
    // On failure the name is unusable.
    [[nodiscard]] static nt::NTSTATUS Parse(std::u16string_view text, NtName *name);

    // Absolute and without a separator at its end, but for "/".
    const std::string &Path() const { return path; }
    bool HasTrailingSeparator() const { return trailingSeparator; }
    // Null: it belongs to no share.
    const std::shared_ptr<RegisteredRoot> &Root() const { return root; }
    // The two parts of the path: what the root's name stands for, and what lies below it (empty: the root).
    std::string_view RootPath() const;
    std::string_view Below() const;
    // Of a stream suffix other than "::$DATA"; empty for the file itself.
    const std::u16string &Stream() const { return stream; }
    // The same without the stream.
    NtName OfFile() const;

    // Cuts the stream suffix, "name[:stream[:type]]", from the last component of a text without a separator
    // at its end. STATUS_OBJECT_NAME_INVALID, and nothing is cut, for a suffix of another form.
    [[nodiscard]] static nt::NTSTATUS SplitStream(std::u16string_view *text, std::u16string *streamName);

private:
    [[nodiscard]] nt::NTSTATUS AppendText(std::u16string_view text);
    [[nodiscard]] nt::NTSTATUS AppendComponents(std::u16string_view text);
    void FindRoot(std::u16string_view text);

    std::shared_ptr<RegisteredRoot> root;
    size_t rootEnd = 0; // in the path, of what the root's name stands for; 0 for "/"
    std::string path;
    std::u16string stream;
    bool trailingSeparator = false;
};

// "/a/b" is "/a" and "b"; the parent of "/b" is "/". The root has an empty leaf.
struct PathParts {
    std::string parent;
    std::string leaf;
};
[[nodiscard]] PathParts SplitPath(std::string_view path);
[[nodiscard]] std::string_view LeafOf(std::string_view path);
[[nodiscard]] std::string JoinPath(std::string_view directory, std::string_view leaf);

// Which local directory a drive letter stands for. That is decided elsewhere; who decides it registers here.

// The path without a separator at its end ("/" for the root), empty for a letter that stands for nothing. May
// be called from any thread at once.
using DriveLetterResolver = std::string (*)(char letter);

// Any thread; null brings back the default, under which C is the root directory and no other letter is known.
void SetDriveLetterResolver(DriveLetterResolver resolver);
[[nodiscard]] std::string PathOfDriveLetter(char letter);

} // namespace fodr::ntposix
