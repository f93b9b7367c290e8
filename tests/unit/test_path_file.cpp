#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "fqhlp-path-file-operations.h"
#include "fqhlp_buffer_file.h"

namespace fs = std::filesystem;

namespace {

class PathFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/fq_pathfile_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        char cwd[PATH_MAX];
        ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
        cwd_ = cwd;
    }
    void TearDown() override
    {
        // copy_dir_recursive moves the working directory; put it back first.
        ASSERT_EQ(chdir(cwd_.c_str()), 0);
        std::error_code ec;
        fs::remove_all(root_, ec);  // never follows links
    }

    std::string path(const std::string& rel) const { return root_ + "/" + rel; }

    static void write_file(const std::string& p, const std::string& content)
    {
        std::ofstream f(p, std::ios::binary | std::ios::trunc);
        ASSERT_TRUE(f.good()) << p;
        f << content;
    }
    static std::string read_file(const std::string& p)
    {
        std::ifstream f(p, std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }
    static mode_t mode_of(const std::string& p)
    {
        struct stat st {};
        EXPECT_EQ(lstat(p.c_str(), &st), 0) << p;
        return st.st_mode & 07777;
    }

    std::string root_;
    std::string cwd_;
};

TEST_F(PathFile, TestsOnPaths)
{
    ASSERT_EQ(mkdir(path("d").c_str(), 0755), 0);
    write_file(path("f"), "x");
    ASSERT_EQ(symlink(path("d").c_str(), path("ld").c_str()), 0);
    ASSERT_EQ(symlink(path("missing").c_str(), path("dangling").c_str()), 0);

    EXPECT_EQ(fqhlp_IsFile(path("d").c_str()), 1);
    EXPECT_EQ(fqhlp_IsFile(path("f").c_str()), 1);
    EXPECT_EQ(fqhlp_IsFile(path("missing").c_str()), 0);
    EXPECT_EQ(fqhlp_IsFile(path("dangling").c_str()), 0);
    EXPECT_EQ(fqhlp_IsFile(""), 0);
    EXPECT_EQ(fqhlp_IsFile(nullptr), 0);

    EXPECT_EQ(fqhlp_IsDir(path("d").c_str()), 1);
    EXPECT_EQ(fqhlp_IsDir(path("ld").c_str()), 1);
    EXPECT_EQ(fqhlp_IsDir(path("f").c_str()), 0);
    EXPECT_EQ(fqhlp_IsDir(path("missing").c_str()), 0);

    EXPECT_EQ(fqhlp_IsRegularFile(path("f").c_str()), 1);
    EXPECT_EQ(fqhlp_IsRegularFile(path("d").c_str()), 0);
    EXPECT_EQ(fqhlp_IsRegularFileD(root_.c_str(), "f"), 1);
    EXPECT_EQ(fqhlp_IsRegularFileD(root_.c_str(), "d"), 0);
    EXPECT_EQ(fqhlp_IsRegularFileD(root_.c_str(), "missing"), 0);

    EXPECT_EQ(fqhlp_IsWritable(path("f").c_str()), 1);
    EXPECT_EQ(fqhlp_IsWritable(path("missing").c_str()), 0);
}

TEST_F(PathFile, CreateDirMakesOneFolderAndSetsTheMode)
{
    std::string d = path("new");
    ASSERT_EQ(fqhlp_create_dir(d.c_str(), true, 0750), 0);
    EXPECT_EQ(fqhlp_IsDir(d.c_str()), 1);
    EXPECT_EQ(mode_of(d), 0750u);

    // An existing folder is no failure, and its mode is still changed.
    ASSERT_EQ(fqhlp_create_dir(d.c_str(), true, 0700), 0);
    EXPECT_EQ(mode_of(d), 0700u);
    ASSERT_EQ(fqhlp_create_dir(d.c_str(), false, 0755), 0);
    EXPECT_EQ(mode_of(d), 0700u);

    // Only one level is made.
    EXPECT_EQ(fqhlp_create_dir(path("a/b").c_str(), false, 0755), -1);
    EXPECT_FALSE(fs::exists(path("a")));
}

TEST_F(PathFile, RemoveDirOnMissingPathOrFileRemovesNothing)
{
    EXPECT_EQ(fqhlp_RemoveDir(path("missing").c_str()), 0);

    write_file(path("file"), "keep me");
    EXPECT_EQ(fqhlp_RemoveDir(path("file").c_str()), 0);
    EXPECT_EQ(read_file(path("file")), "keep me");
}

TEST_F(PathFile, RemoveDirRemovesNestedTrees)
{
    std::string t = path("tree");
    fs::create_directories(t + "/a/b/c/d");
    fs::create_directories(t + "/e");
    write_file(t + "/top", "1");
    write_file(t + "/a/b/c/d/deep", "2");
    write_file(t + "/a/mid", "3");
    ASSERT_EQ(mkfifo((t + "/a/fifo").c_str(), 0600), 0);

    EXPECT_EQ(fqhlp_RemoveDir(t.c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(t)));

    // A trailing slash names the same tree.
    fs::create_directories(t + "/x");
    EXPECT_EQ(fqhlp_RemoveDir((t + "/").c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(t)));
}

TEST_F(PathFile, RemoveDirNeverFollowsLinksOutOfTheTree)
{
    std::string out = path("outside");
    fs::create_directories(out + "/sub");
    write_file(out + "/f1", "one");
    write_file(out + "/sub/f2", "two");
    write_file(path("outside_file"), "three");

    std::string t = path("tree");
    fs::create_directories(t + "/inner");
    write_file(t + "/inner/own", "x");
    ASSERT_EQ(symlink(out.c_str(), (t + "/link_dir").c_str()), 0);
    ASSERT_EQ(symlink(out.c_str(), (t + "/inner/link_dir2").c_str()), 0);
    ASSERT_EQ(symlink(path("outside_file").c_str(), (t + "/link_file").c_str()), 0);
    ASSERT_EQ(symlink("../outside/sub", (t + "/rel_link").c_str()), 0);

    EXPECT_EQ(fqhlp_RemoveDir(t.c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(t)));

    EXPECT_EQ(read_file(out + "/f1"), "one");
    EXPECT_EQ(read_file(out + "/sub/f2"), "two");
    EXPECT_EQ(read_file(path("outside_file")), "three");
}

TEST_F(PathFile, RemoveDirLeavesALinkGivenAsRootAlone)
{
    std::string out = path("outside");
    fs::create_directories(out);
    write_file(out + "/f", "kept");
    ASSERT_EQ(symlink(out.c_str(), path("link").c_str()), 0);

    EXPECT_EQ(fqhlp_RemoveDir(path("link").c_str()), 0);
    EXPECT_EQ(fqhlp_RemoveDir(path("link/").c_str()), 0);
    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_EQ(read_file(out + "/f"), "kept");
}

TEST_F(PathFile, GetFileSizeTrimsTheName)
{
    write_file(path("sized"), std::string(1234, 'z'));
    size_t size = 0;
    std::string padded = "  " + path("sized") + " \t ";
    ASSERT_EQ(fqhlp_GetFileSize(padded.c_str(), &size), 0);
    EXPECT_EQ(size, 1234u);

    // Blanks trim to one blank, which does not exist.
    size = 7;
    EXPECT_EQ(fqhlp_GetFileSize("   ", &size), -1);
    EXPECT_EQ(fqhlp_GetFileSize("", &size), -1);
    EXPECT_EQ(fqhlp_GetFileSize(path("missing").c_str(), &size), -1);
    EXPECT_EQ(fqhlp_GetFileSize(nullptr, &size), -1);
    EXPECT_EQ(fqhlp_GetFileSize(path("sized").c_str(), nullptr), -1);
    EXPECT_EQ(size, 7u);
}

TEST_F(PathFile, GetFileMtime)
{
    write_file(path("m"), "x");
    struct timespec times[2] = {{1000000000, 0}, {1234567890, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path("m").c_str(), times, 0), 0);
    EXPECT_EQ(fqhlp_get_file_mtime(root_.c_str(), "m"), static_cast<time_t>(1234567890));
    EXPECT_EQ(fqhlp_get_file_mtime(root_.c_str(), "missing"), static_cast<time_t>(-1));

    std::string long_name(4096, 'a');
    EXPECT_EQ(fqhlp_get_file_mtime(root_.c_str(), long_name.c_str()), static_cast<time_t>(-1));
}

TEST_F(PathFile, FlattenPath)
{
    const char* flat = fqhlp_FlattenPath("/a/b.log");
    ASSERT_NE(flat, nullptr);
    EXPECT_STREQ(flat, "_a_b.log");
    // The buffer is cleared between calls.
    EXPECT_STREQ(fqhlp_FlattenPath("x"), "x");

    EXPECT_EQ(fqhlp_FlattenPath(nullptr), nullptr);
    EXPECT_EQ(fqhlp_FlattenPath(""), nullptr);

    std::string longest(4095, '/');
    const char* f2 = fqhlp_FlattenPath(longest.c_str());
    ASSERT_NE(f2, nullptr);
    EXPECT_EQ(std::string(f2), std::string(4095, '_'));
    std::string too_long(4096, 'a');
    EXPECT_EQ(fqhlp_FlattenPath(too_long.c_str()), nullptr);
}

TEST_F(PathFile, CopyFile)
{
    std::string data(10000, '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i * 7);
    write_file(path("src"), data);

    ASSERT_EQ(copy_file(path("src").c_str(), path("dst").c_str()), 0);
    EXPECT_EQ(read_file(path("dst")), data);
    EXPECT_EQ(mode_of(path("dst")), 0755u);

    // An existing destination is never overwritten; errno says why.
    write_file(path("existing"), "original");
    errno = 0;
    EXPECT_EQ(copy_file(path("src").c_str(), path("existing").c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path("existing")), "original");

    EXPECT_EQ(copy_file(path("missing").c_str(), path("dst2").c_str()), -1);
    EXPECT_FALSE(fs::exists(path("dst2")));
}

TEST_F(PathFile, CopyDirRecursiveCopiesTreesAndFollowsLinks)
{
    std::string src = path("src");
    fs::create_directories(src + "/sub/deeper");
    write_file(src + "/top", "top");
    ASSERT_EQ(chmod((src + "/top").c_str(), 0640), 0);
    write_file(src + "/sub/mid", "mid");
    write_file(src + "/sub/deeper/low", "low");
    std::string ext = path("ext");
    fs::create_directories(ext);
    write_file(ext + "/inside", "inside");
    write_file(path("extfile"), "extfile");
    ASSERT_EQ(symlink(ext.c_str(), (src + "/dirlink").c_str()), 0);
    ASSERT_EQ(symlink(path("extfile").c_str(), (src + "/filelink").c_str()), 0);

    std::string dst = path("dst");
    ASSERT_EQ(copy_dir_recursive(src.c_str(), dst.c_str()), 0);

    EXPECT_EQ(mode_of(dst), 0750u);
    EXPECT_EQ(read_file(dst + "/top"), "top");
    EXPECT_EQ(mode_of(dst + "/top"), 0640u);
    EXPECT_EQ(read_file(dst + "/sub/mid"), "mid");
    EXPECT_EQ(read_file(dst + "/sub/deeper/low"), "low");
    EXPECT_EQ(mode_of(dst + "/sub"), 0755u);
    EXPECT_EQ(mode_of(dst + "/sub/deeper"), 0755u);
    // Links arrive as what they point to.
    EXPECT_FALSE(fs::is_symlink(dst + "/dirlink"));
    EXPECT_TRUE(fs::is_directory(dst + "/dirlink"));
    EXPECT_EQ(read_file(dst + "/dirlink/inside"), "inside");
    EXPECT_FALSE(fs::is_symlink(dst + "/filelink"));
    EXPECT_EQ(read_file(dst + "/filelink"), "extfile");
}

TEST_F(PathFile, CopyDirRecursiveStopsAtDanglingLinkAndExistingFile)
{
    std::string src = path("src");
    fs::create_directories(src);
    write_file(src + "/a", "a");
    ASSERT_EQ(symlink(path("nowhere").c_str(), (src + "/dangling").c_str()), 0);
    EXPECT_EQ(copy_dir_recursive(src.c_str(), path("dst").c_str()), -1);

    ASSERT_EQ(unlink((src + "/dangling").c_str()), 0);
    std::string dst2 = path("dst2");
    fs::create_directories(dst2);
    write_file(dst2 + "/a", "old");
    EXPECT_EQ(copy_dir_recursive(src.c_str(), dst2.c_str()), -1);
    EXPECT_EQ(read_file(dst2 + "/a"), "old");

    EXPECT_EQ(copy_dir_recursive(path("missing").c_str(), path("dst3").c_str()), -1);
    EXPECT_FALSE(fs::exists(path("dst3")));
}

TEST_F(PathFile, ReadBufferFromFile)
{
    write_file(path("data"), "0123456789");
    char buf[32] = {};

    EXPECT_EQ(fqhlp_read_buffer_from_file(buf, 4, path("data").c_str()), 0);
    EXPECT_EQ(std::string(buf, 4), "0123");
    EXPECT_EQ(fqhlp_read_buffer_from_file(buf, 10, path("data").c_str()), 0);
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    EXPECT_EQ(fqhlp_read_buffer_from_file(buf, 11, path("data").c_str()), -1);
    EXPECT_EQ(fqhlp_read_buffer_from_file(buf, 4, path("missing").c_str()), -1);
}

TEST_F(PathFile, DumpBufferReplacesTheFile)
{
    std::string f = path("dump");
    const char longer[] = "a much longer first content";
    ASSERT_EQ(fqhlp_dump_buffer_to_file(longer, sizeof(longer) - 1, f.c_str()), 0);
    EXPECT_EQ(read_file(f), "a much longer first content");

    const char bin[] = {'x', '\0', 'y'};
    ASSERT_EQ(fqhlp_dump_buffer_to_file(bin, sizeof(bin), f.c_str()), 0);
    EXPECT_EQ(read_file(f), std::string(bin, sizeof(bin)));

    EXPECT_EQ(fqhlp_dump_buffer_to_file("x", 1, path("no/such/dir").c_str()), -1);
}

}  // namespace
