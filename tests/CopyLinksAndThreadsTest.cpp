// What a copy keeps beyond the data, on request or where the volume allows (shared extents, hard
// links), and copies and deletions spread over several threads.
#include "support/ScratchVolumes.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <regex>
#include <set>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace qztest;

namespace {

using CopyMore = VolumeTest;

// Free bytes of the volume at `path`, once what was written has reached it.
long long freeBytes(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    syncfs(fd), close(fd);
    struct statvfs volume {};
    statvfs(path.c_str(), &volume);
    return static_cast<long long>(volume.f_bfree * volume.f_frsize);
}

TEST_F(CopyMore, VolumesThatShareExtentsCloneAndOthersGetACopy)
{
    std::string data(48u << 20, '\0');
    for (size_t i = 0; i < data.size(); i += 4096)
        data[i] = static_cast<char>(i >> 12);
    for (const auto kind : { ScratchVolume::Btrfs, ScratchVolume::Xfs }) {
        ScratchVolume shared(kind, kind == ScratchVolume::Xfs ? 320ull << 20 : 256ull << 20);
        ASSERT_TRUE(shared.ok());
        writeFile(shared / "file", data);
        const long long before = freeBytes(shared.path());
        ASSERT_EQ(runCopy(shared / "file", shared / "clone"), (Outcome { 0, "" }));
        EXPECT_LT(before - freeBytes(shared.path()), 4ll << 20) << kind;   // no second 48 MiB
        EXPECT_TRUE(readFile(shared / "clone") == data) << kind;
        // Onto another volume the data is copied, and onto a file that was there, replaced.
        ASSERT_EQ(runCopy(shared / "file", volume / "copy").status | runCopy(shared / "file", shared / "clone").status, 0);
        EXPECT_TRUE(readFile(volume / "copy") == data && readFile(shared / "clone") == data) << kind;
    }
}

// The inode numbers of `names` below `root`.
std::set<ino_t> inodes(const std::string &root, const std::vector<std::string> &names)
{
    std::set<ino_t> found;
    for (const std::string &name : names)
        found.insert(statusOf(root + "/" + name).st_ino);
    return found;
}

TEST_F(CopyMore, HardLinksStayLinkedOnRequestAndAFailedFirstCopyLeavesTheOthersOnTheirOwn)
{
    const std::string source = volume / "source";
    makeTree(source, { { "a", "shared" }, { "single", "one" }, { "sub/deeper/x", "other" } });
    for (const char *name : { "b", "sub/c", "sub/deeper/d" })
        ASSERT_EQ(link((source + "/a").c_str(), (source + "/" + name).c_str()), 0);
    ASSERT_EQ(link((source + "/sub/deeper/x").c_str(), (volume / "outside").c_str()), 0);   // its other name is not copied
    ASSERT_EQ(symlink("a", (source + "/symbolic").c_str()), 0);
    ASSERT_EQ(linkat(AT_FDCWD, (source + "/symbolic").c_str(), AT_FDCWD, (source + "/sub/symbolic").c_str(), 0), 0);
    const std::vector<std::string> linked { "a", "b", "sub/c", "sub/deeper/d" };
    for (const uint32_t threads : { 0u, 2u }) {
        const std::string copy = volume / ("copy" + std::to_string(threads));
        const uint32_t parallel = threads ? COPY_FILE_PARALLEL : 0;
        ASSERT_EQ(runCopy(source, copy, COPY_FILE_RECURSIVE | COPY_FILE_HARD_LINKS | parallel, 0, threads), (Outcome { 0, "" }));
        EXPECT_EQ(listing(copy), listing(source));
        EXPECT_EQ(inodes(copy, linked).size(), 1u) << threads;
        EXPECT_EQ(statusOf(copy + "/a").st_nlink, 4u);
        EXPECT_EQ(statusOf(copy + "/sub/deeper/x").st_nlink, 1u);
        EXPECT_EQ(inodes(copy, { "symbolic", "sub/symbolic" }).size(), 1u);
        EXPECT_TRUE(S_ISLNK(modeOf(copy + "/sub/symbolic")));
    }
    ASSERT_EQ(runCopy(source, volume / "plain", COPY_FILE_RECURSIVE).status, 0);
    EXPECT_EQ(inodes(volume / "plain", linked).size(), 4u);   // not asked for: every name a file
    // The first name met of a set fails (a folder of someone else's is in its way): the others are copied, each on its own.
    const std::string work = volume / "work", set = volume / "set";
    makeFolder(work, 0755);
    ASSERT_EQ(chown(work.c_str(), nobody, nobody), 0);
    makeTree(set, { { "m1", "linked" } });
    ASSERT_EQ(link((set + "/m1").c_str(), (set + "/m2").c_str()) | link((set + "/m1").c_str(), (set + "/m3").c_str()), 0);
    const std::string first = std::filesystem::directory_iterator(set)->path().filename();   // the folder's own order
    makeTree(work + "/copy", { { first + "/blocker", "root's" } });
    ASSERT_EQ(chown((work + "/copy").c_str(), nobody, nobody), 0);
    const Outcome outcome = runCopy(set, work + "/copy", COPY_FILE_RECURSIVE | COPY_FILE_HARD_LINKS | COPY_FILE_KEEP_GOING, nobody);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_NE(outcome.output.find(work + "/copy/" + first + "/blocker: Permission denied (at utils:195)"), std::string::npos)
            << outcome.output;
    std::vector<std::string> others { "m1", "m2", "m3" };
    std::erase(others, first);
    EXPECT_EQ(inodes(work + "/copy", others).size(), 2u);
    EXPECT_EQ(readFile(work + "/copy/" + others[0]) + readFile(work + "/copy/" + others[1]), "linkedlinked");
}

// A tree of 12 folders of 15 files each, a few of them in a folder nested one level deeper.
void makeWideTree(const std::string &root)
{
    for (int folder = 0; folder < 12; folder++) {
        const std::string dir = root + "/d" + std::to_string(folder) + (folder % 4 ? "" : "/nested");
        makeFolder(dir, 0755);
        for (int file = 0; file < 15; file++)
            writeFile(dir + "/f" + std::to_string(file), std::string(static_cast<size_t>(100 + file * 300), static_cast<char>('a' + file)),
                      file % 2 ? 0644 : 0664);
    }
}

// Whether every line of `output` is one whole report line.
bool wholeLines(const std::string &output)
{
    static const std::regex line("([^\n]*: [^\n]* \\(at utils:[0-9]+\\)|utils:[0-9]+: error \\(-?[0-9]+\\))\n");
    std::string rest = output;
    for (std::smatch match; std::regex_search(rest, match, line, std::regex_constants::match_continuous);)
        rest = match.suffix();
    return rest.empty();
}

TEST_F(CopyMore, ThreadsCopyTheSameTreeCallTheFilterOneAtATimeAndReportAsOneThreadDoes)
{
    const std::string source = volume / "source";
    makeWideTree(source);
    ASSERT_EQ(runCopy(source, volume / "alone", COPY_FILE_RECURSIVE).status, 0);
    struct Calls {
        std::atomic<int> inside { 0 }, most { 0 }, count { 0 };
        std::mutex lock;
        std::set<std::string> paths;
    } calls;
    copy_file_options options { COPY_FILE_RECURSIVE | COPY_FILE_PARALLEL, 0, 0, &calls, nullptr, 4 };
    options.filter = [](void *context, const char *path, const copy_file_options *, int32_t) {
        auto *seen = static_cast<Calls *>(context);
        const int now = ++seen->inside;
        seen->most = std::max(seen->most.load(), now);
        seen->count++;
        if (const std::lock_guard<std::mutex> hold(seen->lock); true)
            seen->paths.insert(path);
        usleep(100);   // long enough for another thread to come in if it could
        --seen->inside;
        return std::strstr(path, "/d5") == nullptr;   // one folder skipped
    };
    errno = 0;
    ASSERT_TRUE(copy_file(source.c_str(), (volume / "threads").c_str(), &options));
    EXPECT_EQ(calls.most.load(), 1);
    // The top, the folders, the nested ones, the files outside d5: each once.
    EXPECT_EQ(calls.count.load(), 1 + 12 + 3 + 11 * 15);
    EXPECT_EQ(calls.paths.size(), static_cast<size_t>(calls.count.load()));
    std::filesystem::remove_all(volume / "alone/d5");
    EXPECT_EQ(listing(volume / "threads"), listing(volume / "alone"));
    EXPECT_EQ(modeOf(volume / "threads/d1/f2"), modeOf(volume / "alone/d1/f2"));
    EXPECT_EQ(statusOf(volume / "threads/d3").st_mtim.tv_sec, statusOf(source + "/d3").st_mtim.tv_sec);
    // As an ordinary user, one unreadable file: the same lines as on one thread, errno on the caller's
    // thread, and nothing left of the copy. With keep-going, the rest is copied.
    const std::string work = volume / "work";
    makeFolder(work, 0777);
    ASSERT_EQ(chmod((source + "/d6/f3").c_str(), 0600) | chmod(source.c_str(), 0755), 0);
    const Outcome alone = runCopy(source, work + "/alone", COPY_FILE_RECURSIVE, nobody);
    EXPECT_EQ(alone, (Outcome { EACCES, "utils:453: error (13)\nutils:410: error (13)\nutils:410: error (13)\n" }));
    for (const uint32_t threads : { 2u, 5u }) {
        EXPECT_EQ(runCopy(source, work + "/strict", COPY_FILE_RECURSIVE | COPY_FILE_PARALLEL, nobody, threads), alone);
        EXPECT_FALSE(exists(work + "/strict"));
    }
    ASSERT_EQ(chmod((source + "/d9/f1").c_str(), 0600) | chmod((source + "/d0/nested/f1").c_str(), 0600), 0);
    EXPECT_EQ(runCopy(source, work + "/going", COPY_FILE_RECURSIVE | COPY_FILE_PARALLEL | COPY_FILE_KEEP_GOING, nobody, 3),
              (Outcome { 0, "utils:453: error (13)\nutils:453: error (13)\nutils:453: error (13)\n" }));
    EXPECT_EQ(statusOf(work + "/going/d11/f14").st_size, statusOf(source + "/d11/f14").st_size);
    EXPECT_FALSE(exists(work + "/going/d9/f1"));
}

TEST_F(CopyMore, ThreadsDeleteATreeAndReportEachFailingEntryWhole)
{
    const std::string tree = volume / "tree";
    makeWideTree(tree);
    ASSERT_EQ(runDelete(tree, 0, 4), (Outcome { 0, "" }));
    EXPECT_FALSE(exists(tree));
    // Folders an ordinary user may not empty, in several places: each failing entry's lines in their
    // order, whole, and the deletion fails with the system's error.
    makeWideTree(tree);
    ASSERT_EQ(chmod(tree.c_str(), 0777), 0);
    for (int folder = 0; folder < 12; folder++)
        ASSERT_EQ(chmod((tree + "/d" + std::to_string(folder)).c_str(), folder % 3 ? 0777 : 0755), 0);
    const Outcome outcome = runDelete(tree, nobody, 3);
    EXPECT_EQ(outcome.status, EACCES);
    EXPECT_TRUE(wholeLines(outcome.output)) << outcome.output;
    std::string rest = outcome.output;
    for (size_t at; (at = rest.find("(at utils:195)\n")) != std::string::npos;) {
        const size_t start = rest.rfind('\n', at) == std::string::npos ? 0 : rest.rfind('\n', at) + 1;
        const std::string entry = rest.substr(start, rest.find(':', start) - start);
        // The entry's own line comes before the lines of its folders.
        EXPECT_NE(rest.find(entry + ": Permission denied (at utils:189)", at), std::string::npos) << entry;
        rest = rest.substr(at + 1);
    }
    EXPECT_TRUE(exists(tree + "/d3/f1"));
}

} // namespace
