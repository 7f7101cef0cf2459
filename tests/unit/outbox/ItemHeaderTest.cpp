#include "companions/outbox/Crc32c.h"
#include "companions/outbox/FieldText.h"
#include "companions/outbox/ItemHeader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kelto::halvek::outbox {
namespace {

TEST(Crc32cTest, IsThatOfTheStandard) {
    Crc32c crc;
    crc.Add("1234");
    crc.Add("56789");
    EXPECT_EQ(crc.Hex(), "e3069283");
}

TEST(ItemHeaderTest, APictureComesBackAsItWas) {
    ItemHeader header;
    header.host = "ftp.example.org";
    header.port = 2121;
    header.user = "me\nhost=evil";
    header.password = "100 %\r\n\n";
    header.remote = "/a b/ä.jpg";
    header.acceptedMs = 1'795'356'029'658;
    header.wasSynced = true;
    header.boot = "b";
    header.uptimeMs = 7;
    const auto read = ItemHeader::Decode(header.Encode());
    ASSERT_TRUE(read);
    EXPECT_EQ(read->Encode(), header.Encode());
    EXPECT_EQ(read->user, header.user);
    EXPECT_EQ(read->password, header.password);
    EXPECT_EQ(read->host, header.host);
}

TEST(ItemHeaderTest, AMailHasItsRecipientsInTheirOrder) {
    ItemHeader header;
    header.kind = ItemHeader::Kind::Mail;
    header.sender = "me@x.example";
    header.recipients = {"b@x.example", "a@x.example"};
    const auto read = ItemHeader::Decode(header.Encode());
    ASSERT_TRUE(read);
    EXPECT_EQ(read->kind, ItemHeader::Kind::Mail);
    EXPECT_THAT(read->recipients, testing::ElementsAre("b@x.example", "a@x.example"));
}

TEST(ItemHeaderTest, NoByteOfItCanBeAnother) {
    ItemHeader header;
    header.host = "ftp.example.org";
    const std::string text = header.Encode();
    // The last byte is that of the empty line.
    for (size_t place = 0; place + 1 < text.size(); ++place) {
        std::string damaged = text;
        damaged[place] = static_cast<char>(damaged[place] ^ 1);
        EXPECT_FALSE(ItemHeader::Decode(damaged)) << place;
    }
    for (size_t length = 0; length + 1 < text.size(); ++length) {
        EXPECT_FALSE(ItemHeader::Decode(text.substr(0, length))) << length;
    }
}

TEST(FieldTextTest, NumbersAreWholeAndWithinBounds) {
    EXPECT_EQ(FieldText::Number("0"), 0);
    EXPECT_EQ(FieldText::Number("65535", 65535), 65535);
    for (const char* word : {"", "-1", "+1", " 1", "1 ", "1x", "0x1", "65536", "99999999999999999999"}) {
        EXPECT_FALSE(FieldText::Number(word, 65535)) << word;
    }
}

}  // namespace
}  // namespace kelto::halvek::outbox
