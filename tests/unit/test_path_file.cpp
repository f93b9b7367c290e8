#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "fqhlp-path-file-operations.h"
#include "fqhlp_buffer_file.h"
#include "process_util.h"

namespace fs = std::filesystem;
using fqtest::read_file;
using fqtest::write_file;

namespace {

class PathFile : public ::testing::Test {
protected:
    void SetUp() override { cwd_ = fs::current_path(); }
    // copy_dir_recursive moves the working directory; put it back.
    void TearDown() override { fs::current_path(cwd_); }

    std::string path(const std::string& rel) const { return dir_ / rel; }
    static mode_t mode_of(const std::string& p)
    {
        struct stat st {};
        EXPECT_EQ(lstat(p.c_str(), &st), 0) << p;
        return st.st_mode & 07777;
    }

    fqtest::TempDir dir_;
    fs::path cwd_;
};

TEST_F(PathFile, TestsOnPaths)
{
    fs::create_directory(path("d"));
    write_file(path("f"), "x");
    fs::create_symlink(path("d"), path("ld"));
    fs::create_symlink(path("missing"), path("dangling"));
    const struct {
        const char* name;
        int is_file, is_dir, is_regular, writable;
    } cases[] = {
        {"d", 1, 1, 0, 1}, {"f", 1, 0, 1, 1}, {"ld", 1, 1, 0, 1}, {"missing", 0, 0, 0, 0}, {"dangling", 0, 0, 0, 0},
    };
    for (const auto& c : cases) {
        const std::string p = path(c.name);
        EXPECT_EQ(fqhlp_IsFile(p.c_str()), c.is_file) << c.name;
        EXPECT_EQ(fqhlp_IsDir(p.c_str()), c.is_dir) << c.name;
        EXPECT_EQ(fqhlp_IsRegularFile(p.c_str()), c.is_regular) << c.name;
        EXPECT_EQ(fqhlp_IsRegularFileD(dir_.path().c_str(), c.name), c.is_regular) << c.name;
        EXPECT_EQ(fqhlp_IsWritable(p.c_str()), c.writable) << c.name;
    }
    EXPECT_EQ(fqhlp_IsFile(""), 0);
    EXPECT_EQ(fqhlp_IsFile(nullptr), 0);
}

TEST_F(PathFile, CreateDirMakesOneFolderAndSetsTheMode)
{
    const std::string d = path("new");
    ASSERT_EQ(fqhlp_create_dir(d.c_str(), true, 0750), 0);
    EXPECT_EQ(mode_of(d), 0750u);
    // An existing folder is no failure, and its mode is still changed when asked.
    ASSERT_EQ(fqhlp_create_dir(d.c_str(), true, 0700), 0);
    EXPECT_EQ(mode_of(d), 0700u);
    ASSERT_EQ(fqhlp_create_dir(d.c_str(), false, 0755), 0);
    EXPECT_EQ(mode_of(d), 0700u);
    // Only one level is made.
    EXPECT_EQ(fqhlp_create_dir(path("a/b").c_str(), false, 0755), -1);
    EXPECT_FALSE(fs::exists(path("a")));
}

TEST_F(PathFile, RemoveDirRemovesTheTreeAndNothingALinkLeadsTo)
{
    const std::string out = path("outside");
    fs::create_directories(out + "/sub");
    write_file(out + "/sub/f", "kept");
    write_file(path("outside_file"), "kept");
    const std::string t = path("tree");
    fs::create_directories(t + "/a/b/c/d");
    write_file(t + "/a/b/c/d/deep", "2");
    ASSERT_EQ(mkfifo((t + "/a/fifo").c_str(), 0600), 0);
    fs::create_symlink(out, t + "/link_dir");
    fs::create_symlink(out, t + "/a/link_dir2");
    fs::create_symlink(path("outside_file"), t + "/link_file");
    fs::create_symlink("../outside/sub", t + "/rel_link");
    fs::create_symlink(out, path("link"));

    // A link given as the root, with or without a slash, is left alone; so are a file and a missing path.
    for (const char* root : {"link", "link/", "outside_file", "missing"})
        EXPECT_EQ(fqhlp_RemoveDir(path(root).c_str()), 0) << root;
    EXPECT_TRUE(fs::is_symlink(path("link")));
    // A trailing slash names the same tree.
    EXPECT_EQ(fqhlp_RemoveDir((t + "/").c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(t)));
    EXPECT_EQ(read_file(out + "/sub/f"), "kept");
    EXPECT_EQ(read_file(path("outside_file")), "kept");
}

TEST_F(PathFile, SizesTimesAndFlattenedNames)
{
    write_file(path("sized"), std::string(1234, 'z'));
    size_t size = 0;
    ASSERT_EQ(fqhlp_GetFileSize(("  " + path("sized") + " \t ").c_str(), &size), 0);
    EXPECT_EQ(size, 1234u);
    // Blanks trim to one blank, which does not exist.
    size = 7;
    for (const char* bad : {"   ", "", "/nonexistent/x"})
        EXPECT_EQ(fqhlp_GetFileSize(bad, &size), -1) << bad;
    EXPECT_EQ(fqhlp_GetFileSize(nullptr, &size), -1);
    EXPECT_EQ(fqhlp_GetFileSize(path("sized").c_str(), nullptr), -1);
    EXPECT_EQ(size, 7u);

    struct timespec times[2] = {{1000000000, 0}, {1234567890, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path("sized").c_str(), times, 0), 0);
    EXPECT_EQ(fqhlp_get_file_mtime(dir_.path().c_str(), "sized"), static_cast<time_t>(1234567890));
    EXPECT_EQ(fqhlp_get_file_mtime(dir_.path().c_str(), "missing"), static_cast<time_t>(-1));
    EXPECT_EQ(fqhlp_get_file_mtime(dir_.path().c_str(), std::string(4096, 'a').c_str()), static_cast<time_t>(-1));

    EXPECT_STREQ(fqhlp_FlattenPath("/a/b.log"), "_a_b.log");
    EXPECT_STREQ(fqhlp_FlattenPath("x"), "x") << "the buffer is cleared between calls";
    EXPECT_EQ(std::string(fqhlp_FlattenPath(std::string(4095, '/').c_str())), std::string(4095, '_'));
    // A cut name could collide with another file's: refused.
    for (const char* bad : {static_cast<const char*>(nullptr), ""})
        EXPECT_EQ(fqhlp_FlattenPath(bad), nullptr);
    EXPECT_EQ(fqhlp_FlattenPath(std::string(4096, 'a').c_str()), nullptr);
}

TEST_F(PathFile, CopiesNeverOverwriteAndFollowLinks)
{
    std::string data(10000, '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i * 7);
    write_file(path("src"), data);
    ASSERT_EQ(copy_file(path("src").c_str(), path("dst").c_str()), 0);
    EXPECT_EQ(read_file(path("dst")), data);
    EXPECT_EQ(mode_of(path("dst")), 0755u);
    write_file(path("existing"), "original");
    errno = 0;
    EXPECT_EQ(copy_file(path("src").c_str(), path("existing").c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path("existing")), "original");
    EXPECT_EQ(copy_file(path("missing").c_str(), path("dst2").c_str()), -1);

    const std::string src = path("tree");
    fs::create_directories(src + "/sub/deeper");
    write_file(src + "/top", "top");
    ASSERT_EQ(chmod((src + "/top").c_str(), 0640), 0);
    write_file(src + "/sub/deeper/low", "low");
    fs::create_symlink(path("sub_ext"), src + "/dirlink");
    fs::create_directories(path("sub_ext"));
    write_file(path("sub_ext/inside"), "inside");
    fs::create_symlink(path("src"), src + "/filelink");
    const std::string dst = path("copy");
    ASSERT_EQ(copy_dir_recursive(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(mode_of(dst), 0750u);
    EXPECT_EQ(mode_of(dst + "/top"), 0640u);
    EXPECT_EQ(mode_of(dst + "/sub/deeper"), 0755u);
    EXPECT_EQ(read_file(dst + "/sub/deeper/low"), "low");
    // Links arrive as what they point to.
    EXPECT_FALSE(fs::is_symlink(dst + "/dirlink"));
    EXPECT_EQ(read_file(dst + "/dirlink/inside"), "inside");
    EXPECT_EQ(read_file(dst + "/filelink"), data);

    // Into a tree that has the file already, from a tree with a dangling link, from nothing: failures.
    write_file(dst + "/top", "old");
    EXPECT_EQ(copy_dir_recursive(src.c_str(), dst.c_str()), -1);
    EXPECT_EQ(read_file(dst + "/top"), "old");
    fs::create_symlink(path("nowhere"), src + "/dangling");
    EXPECT_EQ(copy_dir_recursive(src.c_str(), path("copy2").c_str()), -1);
    EXPECT_EQ(copy_dir_recursive(path("missing").c_str(), path("copy3").c_str()), -1);
    EXPECT_FALSE(fs::exists(path("copy3")));
}

TEST_F(PathFile, WholeBuffersToAndFromFiles)
{
    const std::string f = path("dump");
    ASSERT_EQ(fqhlp_dump_buffer_to_file("a much longer first content", 27, f.c_str()), 0);
    const char bin[] = {'x', '\0', 'y'};
    ASSERT_EQ(fqhlp_dump_buffer_to_file(bin, sizeof(bin), f.c_str()), 0);
    EXPECT_EQ(read_file(f), std::string(bin, sizeof(bin))) << "the file is replaced, not overwritten in part";
    EXPECT_EQ(fqhlp_dump_buffer_to_file("x", 1, path("no/such/dir").c_str()), -1);

    write_file(f, "0123456789");
    char buf[32] = {};
    EXPECT_EQ(fqhlp_read_buffer_from_file(buf, 10, f.c_str()), 0);
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    EXPECT_EQ(fqhlp_read_buffer_from_file(buf, 11, f.c_str()), -1) << "a short read is a failure";
    EXPECT_EQ(fqhlp_read_buffer_from_file(buf, 4, path("missing").c_str()), -1);
}

}  // namespace
