// The tools' reader of a card's file, on the one fault a shell cannot stage in time: the file
// shrinking under the mapping after it was opened (a card being taken down meanwhile).
#include "tools/card_view.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

TEST(CardView, AFileThatShrinksAfterOpeningFailsTheCopyInsteadOfCrashing) {
    char path[] = "/tmp/kt4ctl_view_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    std::vector<std::byte> image(kt4::shm::min_area_size());
    ASSERT_TRUE(kt4::shm::format(image.data(), image.size()));
    kt4::shm::seal(image.data());
    ASSERT_EQ(static_cast<ssize_t>(image.size()), write(fd, image.data(), image.size()));

    kt4::tools::CardView view;
    ASSERT_TRUE(view.open(path)) << view.why();
    std::vector<std::byte> rings;
    const char *why = nullptr;
    ASSERT_EQ(1, view.copy_table(kt4::shm::kTraceRings, rings, &why)) << why;

    // Only the header page is left: the rings' pages are gone from the mapping.
    ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(kt4::shm::kHeaderBytes)));
    EXPECT_EQ(-1, view.copy_table(kt4::shm::kTraceRings, rings, &why));
    EXPECT_STREQ("the file shrank while it was read", why);

    // Opened now, the same file is refused at its header.
    kt4::tools::CardView again;
    EXPECT_FALSE(again.open(path));
    EXPECT_STREQ("shared area larger than the image (truncated file?)", again.why());
    close(fd);
    unlink(path);
}

} // namespace
