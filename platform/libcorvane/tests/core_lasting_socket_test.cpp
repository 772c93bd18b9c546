// A socket that is made once, however often making it fails before.
#include "../core/lasting_socket.h"

#include <gmock/gmock.h>

TEST(LastingSocket, IsTriedAgainUntilItIsMadeAndNotMadeTwice)
{
    corvane::lasting_socket socket;
    int tries = 0;
    const auto open = [&] { return ++tries < 3 ? -1 : 10 + tries; };
    EXPECT_EQ(socket.get(open), -1);
    EXPECT_EQ(socket.get(open), -1);
    EXPECT_EQ(socket.get(open), 13);
    EXPECT_EQ(socket.get(open), 13);
    EXPECT_EQ(tries, 3);
}
