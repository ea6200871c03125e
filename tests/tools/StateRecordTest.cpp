#include "Daemon/StateRecord.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

using namespace Zonectl;

namespace {

[[nodiscard]] std::string record(std::int32_t type, const std::string& name, std::int32_t value)
{
    std::string bytes(RECORD_SIZE, '\0');
    std::memcpy(bytes.data(), &type, sizeof(type));
    std::memcpy(bytes.data() + 4, name.data(), std::min<std::size_t>(name.size(), 256));
    std::memcpy(bytes.data() + 260, &value, sizeof(value));
    return bytes;
}

[[nodiscard]] StateRecord parsed(const std::string& bytes)
{
    RecordBytes copy{};
    std::memcpy(copy.data(), bytes.data(), copy.size());
    return parseRecord(copy);
}

/// What comes out of a stream that is read in pieces of that size.
[[nodiscard]] std::vector<std::string> inPieces(const std::string& stream, std::size_t size)
{
    RecordAssembler assembler;
    std::vector<std::string> found;
    for (std::size_t at = 0; at < stream.size(); at += size) {
        assembler.feed(std::string_view(stream).substr(at, size),
                       [&](const StateRecord& one) { found.push_back(one.zone + " " + one.state); });
    }
    return found;
}

} // namespace

TEST(StateRecord, NumbersItsStatesAsLxcDoes)
{
    const std::vector<std::string> words = {"STOPPED",  "STARTING", "RUNNING", "STOPPING",
                                            "ABORTING", "FREEZING", "FROZEN",  "THAWED"};
    for (std::size_t i = 0; i < words.size(); ++i) {
        EXPECT_EQ(parsed(record(0, "red", static_cast<std::int32_t>(i))).state, words[i]);
    }
    EXPECT_EQ(parsed(record(0, "red", 8)).state, "UNKNOWN(8)");
    EXPECT_EQ(parsed(record(0, "red", -1)).state, "UNKNOWN(-1)");
}

TEST(StateRecord, AnotherMessageIsNoState)
{
    EXPECT_TRUE(parsed(record(0, "red", 0)).isState);
    EXPECT_FALSE(parsed(record(1, "red", 0)).isState);
    EXPECT_FALSE(parsed(record(2, "red", 0)).isState);
}

TEST(StateRecord, ANameEndsAtItsZeroByteOrFillsTheField)
{
    EXPECT_EQ(parsed(record(0, std::string("red\0rest", 8), 0)).zone, "red");
    EXPECT_EQ(parsed(record(0, std::string(256, 'n'), 2)).zone, std::string(256, 'n'));
    EXPECT_EQ(parsed(record(0, std::string(256, 'n'), 2)).state, "RUNNING");
    EXPECT_EQ(parsed(record(0, "", 0)).zone, "");
}

TEST(RecordAssembler, PutsPiecesTogether)
{
    const std::string stream = record(0, "red", 1) + record(0, "blue", 2) + record(0, "red", 0);
    const std::vector<std::string> expected = {"red STARTING", "blue RUNNING", "red STOPPED"};
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{7}, std::size_t{263}, RECORD_SIZE, std::size_t{265}, stream.size()}) {
        EXPECT_EQ(inPieces(stream, size), expected) << size;
    }
    EXPECT_TRUE(inPieces(stream.substr(0, RECORD_SIZE - 1), RECORD_SIZE).empty());
}

TEST(RecordAssembler, ForgetsWhatABrokenStreamLeft)
{
    RecordAssembler assembler;
    std::vector<std::string> found;
    const auto take = [&](const StateRecord& one) { found.push_back(one.zone); };
    assembler.feed(record(0, "red", 1).substr(0, 100), take);
    assembler.reset();
    assembler.feed(record(0, "blue", 1), take);
    EXPECT_EQ(found, std::vector<std::string>{"blue"});
}

TEST(SubscribersAddress, IsTheOneOfTheInterface)
{
    EXPECT_EQ(subscribersAddress("/var/lib/lxc"), "lxc/ad055575fe28ddd5//var/lib/lxc");
    EXPECT_EQ(subscribersAddress("/" + std::string(200, 'p')).size(), 105U);
}
