// copy_file and delete_file_object as the superuser while an unprivileged user swaps folders of
// the trees for links to a victim tree, in folders that user owns (not in a sticky world-writable
// folder, where protected_symlinks could hide a fault); a mount inside a deleted tree; and the
// root folder, tried only chrooted into a scratch tmpfs. The victim trees stay as they were.
#include "support/ScratchVolumes.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>

#include <grp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace qztest;

namespace {

constexpr uid_t attackerId = 65534;
constexpr auto attackTime = std::chrono::seconds(10);
constexpr unsigned maxRounds = 20000;

// Every object below `root`, not following links: name, type and mode, owner, group, and the
// content of a file or the text of a link.
std::string fingerprint(const std::string &root)
{
    std::ostringstream out;
    std::error_code error;
    std::vector<std::filesystem::path> paths;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root, error))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const auto &path : paths) {
        const struct stat status = statusOf(path);
        out << path.string().substr(root.size()) << ' ' << std::oct << status.st_mode << std::dec << ' '
            << status.st_uid << ':' << status.st_gid;
        if (S_ISREG(status.st_mode))
            out << " =" << readFile(path);
        else if (S_ISLNK(status.st_mode))
            out << " ->" << std::filesystem::read_symlink(path, error).string();
        out << '\n';
    }
    return out.str();
}

// The shape every tree here has: four folders, each with files and two folders of files; only
// the folders without `content`.
std::map<std::string, std::string> shape(const std::string &content = {})
{
    std::map<std::string, std::string> entries;
    for (int d = 0; d < 4; d++)
        for (int e = 0; e < 2; e++) {
            const std::string folder = "d" + std::to_string(d), inner = folder + "/e" + std::to_string(e) + "/";
            entries[inner] = "";
            for (int f = 0; !content.empty() && f < 4; f++) {
                entries[folder + "/f" + std::to_string(f)] = content;
                entries[inner + "f" + std::to_string(f)] = content;
            }
        }
    return entries;
}

// Runs `attack` as the unprivileged attacker (given the superuser's round and a random source)
// over and over, in a child that dies with the test process, while the superuser repeats `round`
// for the attack time (at most maxRounds times).
void race(const char *what, const std::function<void(unsigned, std::minstd_rand &)> &attack,
          const std::function<void(unsigned)> &round)
{
    struct Shared {
        std::atomic<bool> stop;
        std::atomic<unsigned> round;
        std::atomic<unsigned long> attacks;
    };
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto *shared = new (memory) Shared {};
    const pid_t parent = getpid();
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent || setgroups(0, nullptr) != 0 || setgid(attackerId) != 0 || setuid(attackerId) != 0)
            _exit(126);
        std::minstd_rand random(static_cast<unsigned>(getpid()));
        for (; !shared->stop; shared->attacks++)
            attack(shared->round, random);
        _exit(0);
    }
    const auto end = std::chrono::steady_clock::now() + attackTime;
    unsigned rounds = 0;
    for (; pid > 0 && rounds < maxRounds && std::chrono::steady_clock::now() < end; rounds++) {
        shared->round = rounds;
        round(rounds);
    }
    shared->stop = true;
    int status = -1;
    EXPECT_TRUE(pid > 0 && waitpid(pid, &status, 0) == pid && status == 0) << "the attacker did not run: " << status;
    std::printf("%u %s, %lu attacks\n", rounds, what, shared->attacks.load());
    munmap(memory, sizeof(Shared));
}

// Swaps `path` for a link to `target`, keeping what was there under `kept`; true when it did.
bool swapForLink(const std::string &path, const std::string &target, const std::string &kept)
{
    return rename(path.c_str(), kept.c_str()) == 0 && symlink(target.c_str(), path.c_str()) == 0;
}

// A folder of the shape at random: "", "/dK" or "/dK/eL".
std::string randomFolder(std::minstd_rand &random)
{
    const unsigned pick = random() % 13;
    if (pick == 12)
        return "";
    return "/d" + std::to_string(pick % 4) + (pick < 4 ? "" : "/e" + std::to_string(pick % 2));
}

// A root-owned victim tree, a root-only secret tree, and the attacker's home to work in.
class Attack : public VolumeTest
{
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        makeTree(victim, shape("victim"));
        makeTree(secret, shape("secret"));
        ASSERT_EQ(chmod(secret.c_str(), 0700), 0);
        makeFolder(home, 0755);
        makeFolder(staging, 0700);
        ASSERT_EQ(chown(home.c_str(), attackerId, attackerId), 0);
        victimBefore = fingerprint(victim);
        secretBefore = fingerprint(secret);
    }
    // The victim and the secret trees are as they were, and no copy holds the secret.
    void expectUntouched(const std::string &copies = {})
    {
        EXPECT_EQ(fingerprint(victim), victimBefore);
        EXPECT_EQ(fingerprint(secret), secretBefore);
        EXPECT_TRUE(copies.empty() || fingerprint(copies).find("=secret") == std::string::npos);
    }
    // Makes the attacker's tree `name` in staging, where the attacker cannot reach it, then moves it whole into home.
    void makeAttackersTree(const std::string &name, const std::map<std::string, std::string> &entries)
    {
        makeTree(staging + name, entries);
        ASSERT_EQ(runProgram({ "chown", "-hR", "65534:65534", staging + name }).status, 0);
        ASSERT_EQ(rename((staging + name).c_str(), (home + name).c_str()), 0);
    }
    // The attack on trees home/<prefix><round>: a folder at random becomes a link to the victim's.
    std::function<void(unsigned, std::minstd_rand &)> swapFolders(const std::string &prefix) const
    {
        return [this, prefix](unsigned round, std::minstd_rand &random) {
            const std::string folder = randomFolder(random);
            swapForLink(home + prefix + std::to_string(round) + folder, victim + folder, home + "/moved" + std::to_string(random()));
        };
    }
    const std::string victim = volume / "victim", secret = volume / "secret", home = volume / "home", staging = volume / "staging";
    std::string victimBefore, secretBefore;
};

// Every other round copies on two threads, keeping hard links, and deletes on two threads.
uint32_t onThreads(unsigned round)
{
    return round % 2 ? COPY_FILE_PARALLEL | COPY_FILE_HARD_LINKS : 0;
}

TEST_F(Attack, RecursiveCopiesIntoAndOutOfAFolderWhoseFoldersAreSwappedForLinks)
{
    // Into the attacker's folders, which the copy merges into: they become links to the victim's.
    const std::string source = home + "/source";
    makeAttackersTree("/source", shape("attacker"));
    race("copies into the attacker's folder", swapFolders("/copy"), [&](unsigned round) {
        const std::string name = "/copy" + std::to_string(round);
        makeAttackersTree(name, shape());
        runCopy(source, home + name, COPY_FILE_RECURSIVE | onThreads(round), 0, 2);
        runDelete(home + name, 0, round % 2 * 2);
    });
    expectUntouched();
    // Out of it: the source's folders become links to the secret tree for a moment, then are put
    // back, so that most copies go deep.
    const std::string copies = volume / "copies";
    makeFolder(copies, 0755);
    const auto swapBack = [&](unsigned, std::minstd_rand &random) {
        const std::string folder = randomFolder(random), path = source + folder, kept = home + "/kept";
        if (folder.empty() || !swapForLink(path, secret + folder, kept))
            return;
        sched_yield();
        unlink(path.c_str());
        rename(kept.c_str(), path.c_str());
    };
    race("copies out of the attacker's folder", swapBack, [&](unsigned round) {
        const std::string copy = copies + "/" + std::to_string(round);
        runCopy(source, copy, COPY_FILE_RECURSIVE | onThreads(round), 0, 2);
        EXPECT_EQ(fingerprint(copy).find("=secret"), std::string::npos) << copy;
        runDelete(copy, 0, round % 2 * 2);
    });
    expectUntouched(copies);
}

TEST_F(Attack, AFolderSwappedWhileTheFilterRunsLeadsTheCopyNowhereElse)
{
    // Once the copy is inside d1, the attacker swaps d1 of both trees for links: to the victim's d1
    // on the destination's side, to the secret's on the source's. The copy goes on in the two
    // folders it holds, wherever they are now.
    const std::string source = home + "/source", copy = home + "/copy";
    makeAttackersTree("/source", shape("attacker"));
    makeAttackersTree("/copy", shape());   // merged into: the attacker's folders
    struct Swap {
        std::string at, source, copy, victim, secret, home;
        bool done = false, ok = false;
    } swap { source + "/d1/e0", source + "/d1", copy + "/d1", victim + "/d1", secret + "/d1", home };
    copy_file_options options { COPY_FILE_RECURSIVE, 0, 0, &swap, nullptr, 0 };
    options.filter = [](void *context, const char *path, const copy_file_options *, int32_t) {
        auto *wanted = static_cast<Swap *>(context);
        if (!wanted->done && wanted->at == path) {
            wanted->done = true;
            wanted->ok = runAs(attackerId, [wanted] {
                return swapForLink(wanted->copy, wanted->victim, wanted->home + "/copy-d1")
                        && swapForLink(wanted->source, wanted->secret, wanted->home + "/source-d1");
            }) == Outcome { 0, "" };
        }
        return true;
    };
    ASSERT_TRUE(copy_file(source.c_str(), copy.c_str(), &options));
    ASSERT_TRUE(swap.done && swap.ok);
    expectUntouched(copy);
    EXPECT_EQ(std::filesystem::read_symlink(copy + "/d1"), victim + "/d1");
    // What d1 held arrived in the folder the copy made for it, now moved aside.
    EXPECT_EQ(listing(home + "/copy-d1"), listing(home + "/source-d1"));
    EXPECT_EQ(listing(copy + "/d2"), listing(source + "/d2"));
}

TEST_F(Attack, DeletesOfATreeWhoseFoldersAreSwappedForLinks)
{
    const std::map<std::string, std::string> tree = shape("attacker");
    race("deletes", swapFolders("/tree"), [&](unsigned round) {
        makeAttackersTree("/tree" + std::to_string(round), tree);
        runDelete(home + "/tree" + std::to_string(round), 0, round % 2 * 2);
    });
    expectUntouched();
}

TEST_F(Attack, ADeleteDoesNotEnterAFileSystemMountedInsideItsTree)
{
    // A bind mount of the same volume counts as another file system.
    const std::string tree = volume / "tree", mount = tree + "/inner/mount";
    makeTree(tree, { { "inner/mount/", "" } });
    ASSERT_EQ(::mount(victim.c_str(), mount.c_str(), nullptr, MS_BIND, nullptr), 0);
    const std::string error = ": Invalid cross-device link (at utils:";
    EXPECT_EQ(runDelete(tree), (Outcome { EXDEV, mount + error + "158)\n" + mount + error + "189)\n" + tree + "/inner" + error + "189)\n" }));
    umount2(mount.c_str(), MNT_DETACH);
    expectUntouched();
    EXPECT_EQ(listing(tree), "inner/ inner/mount/");
}

TEST_F(Attack, TheRootFolderIsRefusedHoweverSpelled)
{
    // Only ever inside a scratch tmpfs that the child has made its root, holding qzutil, its command
    // module, the libraries they load and canary files: a fault cannot reach the machine's own root.
    ScratchVolume scratch(ScratchVolume::Tmpfs, 1ull << 30);
    ASSERT_TRUE(scratch.ok());
    const std::string marker = "/qz-scratch-root";
    const std::string qzutil = QZUTIL_PATH;
    for (const std::string &program : { qzutil, std::string(QZUTIL_COMMANDS_PATH) }) {   // delete is in the module
        const Outcome libraries = runProgram({ "ldd", program });
        ASSERT_EQ(libraries.status, 0) << libraries.output;
        std::istringstream lines(libraries.output);
        std::string word = program;   // then "name => /path (address)", or "/path (address)" for the loader
        do
            ASSERT_TRUE(word.front() != '/' || runProgram({ "cp", "-L", "--parents", word, scratch.path() }).status == 0) << word;
        while (lines >> word);
    }
    makeTree(scratch.path(), { { marker.substr(1), "" }, { "canary", "1" }, { "tmp/canary", "2" }, { "home/x/canary", "3" } });
    const std::string before = listing(scratch.path());
    const auto [status, output] = runChild([&] {
        if (unshare(CLONE_NEWNS) < 0 || chroot(scratch.path().c_str()) < 0 || chdir("/") < 0
            || access(marker.c_str(), F_OK) < 0)
            _exit(99);   // not inside the scratch root: nothing is tried
        std::string results;
        for (const char *root : { "/", "//", "/tmp/..", "." }) {
            errno = 0;
            const int result = delete_file_object(root);
            results += std::to_string(result) + " " + std::strerror(errno) + "\n";
        }
        std::fputs(results.c_str(), stdout);
        std::fflush(stdout);
        execl(qzutil.c_str(), "qzutil", "delete", "/tmp/..", nullptr);
        _exit(98);
    });
    EXPECT_EQ(status, 1) << output;
    const std::string refused = "/: Operation not permitted (at utils:145)\n", failed = "-1 Operation not permitted\n";
    EXPECT_EQ(output.substr(0, output.find("qzutil:")),
              refused + refused + refused + refused + failed + failed + failed + failed + refused);
    EXPECT_NE(output.find("qzutil: cannot delete /tmp/..: it is the root folder, which is never deleted\n"), std::string::npos) << output;
    EXPECT_EQ(listing(scratch.path()), before);
}

} // namespace
