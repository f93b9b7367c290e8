#include <gtest/gtest.h>

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
    std::string path(const std::string& rel) const { return dir_ / rel; }
    fqtest::TempDir dir_;
};

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
