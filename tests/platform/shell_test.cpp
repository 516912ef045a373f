// A command's output as a stream: it is read, and closing it ends the command and waits for it.
#include "platform/platform.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

TEST(Shell, ClosingAStreamEndsItsCommand)
{
    // One that ends by itself, though later than its output; one that writes without end.
    for (const char* line : {"echo text; exec >&-; sleep 0.2", "yes text"}) {
        FILE* stream = my_popen(line, "r");
        ASSERT_NE(stream, nullptr);
        char text[8] = "";
        EXPECT_STREQ(fgets(text, sizeof text, stream), "text\n");
        EXPECT_EQ(fclose(stream), 0);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    }
}
