// Taking a name away and giving a file another one, in steps that no file of others gets lost in. Others
// change the same directories at any time: an editor that saves puts a new file under a name in one step.
//
// All give 0 or an errno. Any thread.
#pragma once

#include "ntposix/FileMetadata.h"

#include <string>

namespace fodr::ntposix {

// A name in an open directory, which may be O_PATH. Borrowed.
struct Spot {
    int directory;
    const std::string &leaf;
};

// The name goes if it is the file's whose facts are given; ESTALE when it is another's by now, which stays.
// A directory goes only when it is empty.
//
// A file is first moved to a hidden name, looked at, and then removed or put back. So others may miss it for
// an instant. If another file has its name by then, it is kept beside it as "NAME.fodr-kept-NUMBER".
[[nodiscard]] int RemoveName(Spot name, const FileMetadata &file);

// What is at `from` takes the file's name, and the file is removed; ESTALE when the name is another's by now,
// which stays. Both are in one directory, and the file has no other name.
[[nodiscard]] int TakeName(Spot from, Spot name, const FileMetadata &file);

// A hidden name that isn't in use.
[[nodiscard]] std::string NewHiddenName();

// EEXIST when something has the new name: nothing is ever replaced. What has the old name when the step is
// made is what moves. Where the file system can't rename under that condition, a file has both names for an
// instant or, where it has no links either, `to` is held by an empty file meanwhile; what others put in that
// one's place just then is lost.
[[nodiscard]] int MoveToFreeName(Spot from, Spot to);

// The same for another case of a name in the same directory, which a file system that ignores case takes for
// something that is there.
[[nodiscard]] int ChangeSpelling(Spot from, Spot to);

// rename(2): what has the name `to` goes in the same step, also a directory that is empty.
[[nodiscard]] int MoveOver(Spot from, Spot to);

} // namespace fodr::ntposix
