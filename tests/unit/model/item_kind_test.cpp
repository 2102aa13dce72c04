#include "item_kind.h"

#include <gtest/gtest.h>

using SystemServer::ItemKind;
using SystemServer::KindOf;

TEST(TheKindOfAnItem, IsLibraryForExactlyTheEndingSo)
{
    EXPECT_EQ(KindOf("libx.so"), ItemKind::LIBRARY);
    EXPECT_EQ(KindOf(".so"), ItemKind::LIBRARY);
    EXPECT_EQ(KindOf("libx.SO"), ItemKind::BINARY);
    EXPECT_EQ(KindOf("libx.So"), ItemKind::BINARY);
    EXPECT_EQ(KindOf("libx.so.1"), ItemKind::BINARY);
    EXPECT_EQ(KindOf("libxso"), ItemKind::BINARY);
}

TEST(TheKindOfAnItem, IsScriptForExactlyTheEndingSh)
{
    EXPECT_EQ(KindOf("tool.sh"), ItemKind::SCRIPT);
    EXPECT_EQ(KindOf(".sh"), ItemKind::SCRIPT);
    EXPECT_EQ(KindOf("tool.SH"), ItemKind::BINARY);
    EXPECT_EQ(KindOf("tool.bash"), ItemKind::BINARY);
    EXPECT_EQ(KindOf("toolsh"), ItemKind::BINARY);
}

TEST(TheKindOfAnItem, IsUnknownForANameOfFewerThanThreeCharacters)
{
    EXPECT_EQ(KindOf(""), ItemKind::TOO_SHORT);
    EXPECT_EQ(KindOf("x"), ItemKind::TOO_SHORT);
    EXPECT_EQ(KindOf("so"), ItemKind::TOO_SHORT);
    EXPECT_EQ(KindOf("app"), ItemKind::BINARY);
}
