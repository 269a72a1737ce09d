// Where copy_file and delete_file_object stop on purpose: entries whose paths do not fit the
// 1,024-byte path buffers, and a folder copied into itself or below itself.
#include "support/ScratchVolumes.h"

#include <cerrno>
#include <filesystem>

#include <unistd.h>

using namespace qztest;

namespace {

using WalkLimits = VolumeTest;

// A folder below `root` whose path is `length` bytes long, through folders of 100 bytes.
std::string deepFolder(std::string root, size_t length)
{
    while (root.size() + 101 < length)
        root += "/" + std::string(100, 'd');
    root += "/" + std::string(length - root.size() - 1, 'e');
    makeFolder(root);
    return root;
}

TEST_F(WalkLimits, AnEntryWhosePathDoesNotFitIsNotTouched)
{
    // 1,023 bytes fit the buffer with its terminator; one more does not.
    const std::string top = volume / "deep", folder = deepFolder(top, 1000);
    const std::string fits = folder + "/" + std::string(1022 - folder.size(), 'f');
    const std::string cut = folder + "/" + std::string(1023 - folder.size(), 'g');
    writeFile(fits, "fits");
    writeFile(cut, "cut");
    // The copy names the entry as far as its buffer holds it, and goes on only when told to.
    const std::string shown = cut.substr(0, 1023), copy = volume / "copy", tooLong = ": File name too long (at utils:";
    std::string chain = shown + tooLong + "309)\n";
    for (std::string at = folder; at.size() >= top.size(); at = at.substr(0, at.rfind('/')))
        chain += "utils:410: error (36)\n";
    EXPECT_EQ(runCopy(top, copy, COPY_FILE_RECURSIVE), (Outcome { ENAMETOOLONG, chain }));
    EXPECT_FALSE(exists(copy));
    EXPECT_EQ(runCopy(top, copy, COPY_FILE_RECURSIVE | COPY_FILE_KEEP_GOING), (Outcome { 0, shown + tooLong + "309)\n" }));
    EXPECT_EQ(listing(copy + folder.substr(top.size())), fits.substr(folder.size() + 1) + "=fits");
    // A destination whose entries do not fit: the line names the destination as cut.
    const std::string into = deepFolder(volume / "into", 1010);
    makeTree(volume / "source", { { std::string(20, 's'), "x" } });
    EXPECT_EQ(runCopy(volume / "source", into, COPY_FILE_RECURSIVE),
              (Outcome { ENAMETOOLONG, (into + "/" + std::string(20, 's')).substr(0, 1023) + tooLong + "309)\nutils:410: error (36)\n" }));
    // The delete stops at the entry, before anything of that folder that comes after it.
    chain = shown + tooLong + "145)\n" + shown + tooLong + "189)\n";
    for (std::string at = folder; at.size() > top.size(); at = at.substr(0, at.rfind('/')))
        chain += at + tooLong + "189)\n";
    EXPECT_EQ(runDelete(top), (Outcome { ENAMETOOLONG, chain }));
    EXPECT_EQ(readFile(cut), "cut");
}

TEST_F(WalkLimits, AFolderIsNotCopiedIntoItselfOrBelowItself)
{
    const std::string source = volume / "source", link = volume / "link";
    makeTree(source, { { "sub/file", "x" } });
    ASSERT_EQ(symlink(source.c_str(), link.c_str()), 0);
    const std::string before = listing(source);
    // However the destination is spelled, through a link or "..", it is refused before anything is made.
    for (const std::string &destination : { source, source + "/", source + "/sub/new", link + "/sub/new", source + "/sub/.." }) {
        EXPECT_EQ(runCopy(source, destination, COPY_FILE_RECURSIVE), (Outcome { EINVAL, destination + ": Invalid argument (at utils:346)\n" }))
                << destination;
        EXPECT_EQ(listing(source), before);
    }
    // Beside itself, and a link to it (copied as a link), are fine.
    EXPECT_EQ(runCopy(source, volume / "sourcery", COPY_FILE_RECURSIVE).status, 0);
    EXPECT_EQ(runCopy(link, source + "/sub/link", COPY_FILE_RECURSIVE).status, 0);
    EXPECT_EQ(std::filesystem::read_symlink(source + "/sub/link"), source);
}

} // namespace
