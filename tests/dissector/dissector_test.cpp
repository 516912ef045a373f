// The Wireshark dissector, as tshark runs it, on what the bench tool and simulated cards said to each other: that the
// fields are there, that requests find their answers, and that no frame, however broken, is too much for it.
#include "base/bytes.h"
#include "dissector/frames.h"
#include "eth_raw/frame.h"
#include "rvkdiag/three_links.h"

#include <algorithm>
#include <iterator>
#include <random>
#include <sstream>

using namespace rvk;

namespace {

constexpr size_t frames_kept = 1000;

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) { out.push_back(line); }
    return out;
}

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) { ++n; }
    return n;
}

class Dissector : public ThreeLinks {
protected:
    void SetUp() override
    {
        ThreeLinks::SetUp();
        for (card_farm& farm : farms) { farm.keep_trail(frames_kept); }
        child installed({"sh", "-c", "rm -f /usr/lib/*/wireshark/plugins/rvk.lua"}); // would be taken in place of ours
        ASSERT_EQ(installed.end(), 0);
    }

    void diag(const std::string& line, const card_faults& faults = {}, int status = 0)
    {
        farms[1].set_faults(faults);
        std::istringstream words(line);
        const said answer = run({std::istream_iterator<std::string>(words), {}});
        EXPECT_EQ(answer.status, status) << line << '\n' << answer.out << answer.err;
    }

    [[nodiscard]] std::string capture(size_t link) const
    {
        const std::string path = folder / ("link" + std::to_string(link) + ".pcap");
        EXPECT_EQ(farms[link].write_pcap(path), "");
        return path;
    }

    // Reads the capture twice, as Wireshark does, with nothing that the machine's user or administrator set up.
    // Result: standard output, and both streams in `said.err`.
    [[nodiscard]] said tshark(const std::string& capture, const std::string& arguments) const
    {
        const std::string log = folder / "tshark.log", at = folder;
        child reader(
            {"sh", "-c", "tshark -2 -n -X lua_script:" RVK_DISSECTOR " -r " + capture + ' ' + arguments + " 2> " + log},
            {.environment = {"HOME=" + at, "XDG_CONFIG_HOME=" + at}});
        const int status = reader.end(milliseconds{100'000});
        return {status, reader.output(), reader.output() + file_text(log)};
    }
    [[nodiscard]] std::vector<std::string> fields(const std::string& capture, const std::string& names,
                                                  const std::string& filter = {}) const
    {
        std::string arguments = "-R rvk -T fields -E separator='|'" + (filter.empty() ? "" : " -Y '" + filter + "'");
        std::istringstream words(names);
        for (std::string name; words >> name;) { arguments += " -e " + name; }
        const said told = tshark(capture, arguments);
        EXPECT_EQ(told.status, 0) << told.err;
        return lines_of(told.out);
    }

    [[nodiscard]] std::string pcap(const std::vector<frame_bytes>& frames) const
    {
        write_bytes(folder / "made.pcap", pcap_of(frames));
        return folder / "made.pcap";
    }

    void talk();
    const std::string block = folder / "block.bin", back = folder / "back.bin";
};

// Every step is a process of its own, so each numbers its frames from 0.
void Dissector::talk()
{
    write_bytes(block, numbered(10'000));
    diag("fpga 1 readw 3 2 10000 4");
    diag("fpga 1 writea 3 2 10000 01000080", {.loss = 1});
    diag("fpga 1 writea 3 2 10000 01000080");
    diag("fpga 1 writea 3 2 10000 01000080", {.wrong_ack = 1});
    diag("fpga 1 readw 0 1 f00009 1");
    diag("fpga 1 read 3 2 10000 4", {.corrupt = 1});
    diag("fpga 1 read 3 2 10000 4", {.len_past_end = 1});
    diag("fpga 1 read 3 2 10000 4", {.trailing = 1});
    diag("fpga 1 read 3 2 10000 4", {.read_says_none = 1});
    diag("fpga 1 writeaw 3 2 10000 02", {.ack_code_short = 1, .duplicate = 1});
    diag("fpga 1 write 0 1 a0 00");
    diag("fpga 1 writeaw 3 2 10000 02", {.loss = 1}, 3);
    diag("fpga 1 writeaw 3 2 10000 02");
    diag("bus write 1 0x20000 " + block);
    diag("bus read 1 0x20000 10000 " + back, {.bus_refused = 1, .bus_wrong_addr = 1});
}

// What tshark is to say of it: frame|code|bus type|addr|bus addr|len|bus data_len|seq|ack|bus ack|answers the request
// in| answered in|first sent in|answered already in|notes. A bus block's answers carry no number, a plain write none
// but 0.
const char* const conversation_of_talk[] = {
    "1|0x00||0x00010000||4||0||||2|||",
    "2|0x00||0x00010000||4||0|0||1||||",
    "3|0x11||0x00010000||4||0|||||||No valid answer before it was sent again",
    "4|0x11||0x00010000||4||0||||5|3||Sent again: the same bytes as in frame 3",
    "5|0x11||0x00010000||0||0|0||4||||",
    "6|0x11||0x00010000||4||0||||7|||",
    "7|0x11||0x00010000||0||0|0||6||||",
    "8|0x11||0x00010000||4||0||||9|||",
    "9|0x11||0x00010000||0||0|2||8||||Refused by the card, status 2",
    "10|0x11||0x00010000||4||0||||11|8||Sent again: the same bytes as in frame 8",
    "11|0x11||0x00010000||0||0|0||10||||",
    "12|0x00||0x00f00009||1||0||||13|||",
    "13|0x00||0x00f00009||1||0|0||12||||",
    "14|0x00||0x00010000||4||0|||||||No valid answer before it was sent again",
    "15|0x00||0x00010000||4||0|0||||||Checksum 0x55e0 should be 0x55e8",
    "16|0x00||0x00010000||4||0||||17|14||Sent again: the same bytes as in frame 14",
    "17|0x00||0x00010000||4||0|0||16||||",
    "18|0x00||0x00010000||4||0|||||||No valid answer before it was sent again",
    "19|0x00||0x00010000||104||0|0||||||len 104 needs a frame of 135 bytes, this has 35",
    "20|0x00||0x00010000||4||0||||21|18||Sent again: the same bytes as in frame 18",
    "21|0x00||0x00010000||4||0|0||20||||",
    "22|0x00||0x00010000||4||0|||||||No valid answer before it was sent again",
    "23|0x00||0x00010000||4||0|0||||||Checksum 0xa5a5 should be 0x55e0,2 bytes behind the checksum",
    "24|0x00||0x00010000||4||0||||25|22||Sent again: the same bytes as in frame 22",
    "25|0x00||0x00010000||4||0|0||24||||",
    "26|0x00||0x00010000||4||0|||||||No valid answer before it was sent again",
    "27|0x00||0x00010000||4||0|255||||||status 255 says nothing",
    "28|0x00||0x00010000||4||0||||29|26||Sent again: the same bytes as in frame 26",
    "29|0x00||0x00010000||4||0|0||28||||",
    "30|0x11||0x00010000||1||0||||31|||",
    "31|0x10||0x00010000||0||0|0||30||||",
    "32|0x10||0x00010000||0||0|0|||||31|Ignored: answered before, in frame 31",
    "33|0x01||0x000000a0||1||0|||||||",
    "34|0x11||0x00010000||1||0|||||||No valid answer in this capture",
    "35|0x11||0x00010000||1||0||||36|||",
    "36|0x11||0x00010000||0||0|0||35||||",
    "37||0||0x00020000||8000||||||||",
    "38||0||0x00021f40||2000||||||||",
    "39||1||0x00020000||8000||||||||No valid answer before it was sent again",
    "40||3||0x00020008||1|||2|||||Refused by the card, status 2,Ignored: no request for it",
    "41||1||0x00020000||8000|||||42|39||Sent again: the same bytes as in frame 39",
    "42||2||0x00020000||8000||||41||||",
    "43||1||0x00021f40||2000|||||44|||",
    "44||2||0x00021f40||2000||||43||||",
};

} // namespace

TEST_F(Dissector, FieldsAndWhoseAnswerIsWhose)
{
    talk();
    const auto rows = fields(capture(1), "frame.number rvk.code rvk.bus.type rvk.addr rvk.bus.addr rvk.len "
                                         "rvk.bus.data_len rvk.seq rvk.ack rvk.bus.ack rvk.request_in rvk.reply_in "
                                         "rvk.resend_of rvk.duplicate_of _ws.expert.message");
    EXPECT_EQ(rows, std::vector<std::string>(std::begin(conversation_of_talk), std::end(conversation_of_talk)));
    EXPECT_EQ(fields(capture(1), "rvk.register", "rvk.register"),
              (std::vector<std::string>{"readiness", "readiness", "playback start"}));
    EXPECT_EQ(fields(capture(1), "frame.number", "rvk.addr == 0x10000 && rvk.refused"), std::vector<std::string>{"9"});
}

// Cards may put anything there; what is no more than 1,500 Wireshark takes for a length.
TEST_F(Dissector, TypeFieldsOfRepliesDoNotMatter)
{
    diag("fpga 1 readw 3 2 10000 4");
    const auto frames = frames_in(capture(1));
    ASSERT_EQ(frames.size(), 2u);
    const uint16_t types[] = {0x0000, 0x1100, 0xDC05, 0x0008, 0xDD86, 0xFFFF}; // as loaded: 0, 17, 1,500, IP, IPv6
    std::vector<frame_bytes> replies;
    for (const uint16_t type : types) { store_le16(replies.emplace_back(frames[1]).data() + reply::type, type); }
    const auto rows = fields(pcap(replies), "rvk.type rvk.code rvk.payload");
    EXPECT_EQ(rows, (std::vector<std::string>{"0x0000|0x00|00000000", "0x0011|0x00|00000000", "0x05dc|0x00|00000000",
                                              "0x0800|0x00|00000000", "0x86dd|0x00|00000000", "0xffff|0x00|00000000"}));
}

// Two reads of one register at the same time, and their answers the other way round.
TEST_F(Dissector, AnswersAreFoundByTheirNumbers)
{
    diag("fpga 1 readw 3 2 10000 4");
    auto frames = frames_in(capture(1));
    ASSERT_EQ(frames.size(), 2u);
    frames.insert(frames.begin() + 1, {frames[0], frames[1]});
    store_le16(frames[1].data() + request::seq, 1);
    store_le16(frames[2].data() + reply::seq, 1);
    for (const size_t i : {1u, 2u}) { ++frames[i][frames[i].size() - checksum_bytes]; }
    EXPECT_EQ(fields(pcap(frames), "rvk.seq rvk.request_in rvk.reply_in _ws.expert"),
              (std::vector<std::string>{"0||4|", "1||3|", "1|2||", "0|1||"}));
}

// Each link's requests are its own, though they look the same.
TEST_F(Dissector, LinksOfOneCaptureAreKeptApart)
{
    farms[2].set_faults({.loss = 1});
    const auto unanswered = start({"fpga", "2", "readw", "3", "2", "10000", "4"});
    ASSERT_EQ(requests(2, 1).size(), 1u);
    diag("fpga 1 readw 3 2 10000 4");
    EXPECT_EQ(unanswered->end(), 3);
    const std::string both = folder / "both.pcapng";
    child merge({"sh", "-c", "mergecap -I none -w " + both + ' ' + capture(2) + ' ' + capture(1)});
    ASSERT_EQ(merge.end(), 0) << merge.output();
    EXPECT_EQ(fields(both, "rvk.code rvk.ack rvk.resend_of rvk.request_in rvk.reply_in rvk.unanswered"),
              (std::vector<std::string>{"0x00|||||1", "0x00||||3|", "0x00|0||2||"}));
}

TEST_F(Dissector, TimeBetweenRequestAndAnswer)
{
    const struct {
        unsigned delay_ms;
        int status;
        const char* late;
    } cases[] = {{200, 0, ""}, {1000, 3, "1"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.delay_ms);
        farms[1].keep_trail(frames_kept);
        diag("fpga 1 readw 3 2 10000 4", {.delay = 1, .delay_ms = c.delay_ms}, c.status);
        EXPECT_TRUE(becomes([&] { return frames_in(capture(1)).size() == 2; }));
        const auto rows = fields(capture(1), "rvk.late rvk.time");
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows[0], "|");
        const size_t bar = rows[1].find('|');
        EXPECT_EQ(rows[1].substr(0, bar), c.late);
        EXPECT_NEAR(std::stod(rows[1].substr(bar + 1)), c.delay_ms / 1000.0, 0.1);
    }
}

// Nothing that a frame holds makes it stumble; tshark shows a fault of a script as a line and goes on.
TEST_F(Dissector, NoFrameIsTooMuch)
{
    constexpr size_t spoilt = 4000;
    talk();
    const auto frames = frames_in(capture(1));
    ASSERT_GT(frames.size(), 30u);
    std::mt19937 random(1);
    std::vector<frame_bytes> broken;
    for (size_t i = 0; i < spoilt; ++i) { spoil(broken.emplace_back(frames[random() % frames.size()]), random); }
    const auto ours = static_cast<size_t>(std::count_if(broken.begin(), broken.end(), is_between_us));
    const std::string whole = pcap(broken), cut = folder / "cut.pcap";
    child cutter({"sh", "-c", "editcap -s 45 " + whole + ' ' + cut});
    ASSERT_EQ(cutter.end(), 0) << cutter.output();
    for (const std::string& capture : {whole, cut}) {
        SCOPED_TRACE(capture);
        const said told = tshark(capture, "-V");
        EXPECT_EQ(told.status, 0);
        for (const char* fault : {"Lua", "traceback", "Dissector bug", "Malformed Packet: RVK"}) {
            const size_t at = told.err.find(fault);
            EXPECT_EQ(at, std::string::npos) << told.err.substr(at == std::string::npos ? 0 : at, 300);
        }
        EXPECT_EQ(count(told.out, "\n    Frame Length: "), spoilt);
        EXPECT_EQ(count(told.out, "\nRequest to the cards") + count(told.out, "\nReply of a card"), ours);
    }
}
