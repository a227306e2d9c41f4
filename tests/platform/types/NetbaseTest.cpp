// Netbase addresses, prefixes, labels and label operations.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "support/TestUtil.h"
#include "types/Netbase/IpGenAddr.h"
#include "types/Netbase/IpGenPrefix.h"
#include "types/Netbase/MplsLabel.h"
#include "types/Netbase/UnboundedMplsLabelOperation.h"

namespace {

using Netbase::IpGenAddr;
using Netbase::IpGenPrefix;
using Netbase::MplsLabel;
using Netbase::UnboundedMplsLabelOperation;
using TestSupport::errorText;
using TestSupport::expectTextForm;

const std::string kLabelRange =
    "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";

// `text` is refused by T's reader and by the strict text reader, and the error names it.
template <class T>
void expectRefused(const std::string& text) {
  SCOPED_TRACE(text);
  std::string what = errorText<Kel::ParseError>([&] { T v(text); });
  EXPECT_NE(what.find("'" + text + "'"), std::string::npos) << what;
  EXPECT_THROW(Kel::strepToValue<T>(text), Kel::ParseError);
}

TEST(IpGenAddr, ReadsAndWritesIpv4) {
  struct Case {
    const char* text;
    uint32_t hostOrder;
  };
  for (const Case& c : {Case{"0.0.0.0", 0}, Case{"10.0.0.1", 0x0a000001},
                        Case{"192.168.1.254", 0xc0a801fe}, Case{"255.255.255.255", 0xffffffff}}) {
    SCOPED_TRACE(c.text);
    IpGenAddr a(c.text);
    EXPECT_TRUE(a.isV4());
    EXPECT_EQ(a.v4Addr(), c.hostOrder);
    EXPECT_EQ(a, IpGenAddr::ipv4(c.hostOrder));
    EXPECT_EQ(a.isZero(), c.hostOrder == 0);
    expectTextForm(a, c.text);
  }
}

TEST(IpGenAddr, WritesIpv6InItsCanonicalForm) {
  struct Case {
    const char* in;
    const char* out;
  };
  for (const Case& c :
       {Case{"2001:DB8::1", "2001:db8::1"},
        Case{"2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
        Case{"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // first of two equal runs
        Case{"0:0:a:0:0:0:0:1", "0:0:a::1"},                   // the longest run
        Case{"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // one zero group stays
        Case{"0:0:0:0:0:1:0:0", "::1:0:0"}, Case{"::", "::"}, Case{"::1", "::1"},
        Case{"1::", "1::"}, Case{"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
        Case{"::FFFF:102:304", "::ffff:1.2.3.4"},  // IPv4-mapped: dotted
        Case{"2001:db8::ffff:0:1", "2001:db8::ffff:0:1"},
        // Only IPv4-mapped addresses print dotted, not the deprecated IPv4-compatible ones.
        Case{"::1:2", "::1:2"}, Case{"::abcd:1", "::abcd:1"}}) {
    SCOPED_TRACE(c.in);
    IpGenAddr a(c.in);
    EXPECT_TRUE(a.isV6());
    EXPECT_EQ(a.v4Addr(), 0u);
    expectTextForm(a, c.out);
  }
  EXPECT_TRUE(IpGenAddr("::").isZero());
  EXPECT_FALSE(IpGenAddr("::1").isZero());
}

TEST(IpGenAddr, RefusesMalformedTextNamingIt) {
  for (const char* text :
       {"",          "01.2.3.4",  "1.2.3.04",          "1.2.3.00",        "256.1.1.1",
        "1.2.3",     "1..2.3",    "1.2.3.4.",          "1.2.3.4x",        " 1.2.3.4",
        "1.2.3.4/8", "0x1.2.3.4", "1:2:3:4:5:6:7:8:9", "12345::",         "1:::2",
        "1::2::3",   "::g",       "fe80::1%eth0",      "::ffff:01.2.3.4", "2001:db8::1 "}) {
    expectRefused<IpGenAddr>(text);
  }
  EXPECT_THROW(IpGenAddr(std::string_view("1.2.3.4\0junk", 12)), Kel::ParseError);
  EXPECT_THROW(IpGenPrefix(std::string_view("10.0.0.0\0/8", 11)), Kel::ParseError);
}

TEST(IpGenAddr, OrdersIpv4BeforeIpv6AndComparesByValue) {
  const std::vector<IpGenAddr> sorted = {IpGenAddr(), IpGenAddr("10.0.0.1"),
                                         IpGenAddr("255.255.255.255"), IpGenAddr("::"),
                                         IpGenAddr("::ffff:0.0.0.1"), IpGenAddr("ffff::")};
  for (size_t i = 0; i + 1 < sorted.size(); ++i) {
    SCOPED_TRACE(sorted[i]);
    EXPECT_TRUE(sorted[i] < sorted[i + 1]);
    EXPECT_FALSE(sorted[i + 1] < sorted[i]);
    EXPECT_FALSE(sorted[i] == sorted[i + 1]);
  }
  EXPECT_EQ(IpGenAddr(), IpGenAddr("0.0.0.0"));
  EXPECT_FALSE(IpGenAddr("0.0.0.0") == IpGenAddr("::"));
  EXPECT_FALSE(IpGenAddr("10.0.0.1") == IpGenAddr("::ffff:10.0.0.1"));
  EXPECT_EQ(IpGenAddr("10.0.0.1").hash(7), IpGenAddr::ipv4(0x0a000001).hash(7));
  EXPECT_EQ(IpGenAddr("2001:db8::1").hash(), IpGenAddr("2001:DB8:0::1").hash());
}

TEST(IpGenPrefix, ReadsAndWritesText) {
  struct Case {
    const char* text;
    bool v4;
  };
  for (const Case& c :
       {Case{"10.0.0.0/8", true}, Case{"0.0.0.0/0", true}, Case{"192.168.1.128/25", true},
        Case{"10.1.2.3/32", true}, Case{"::/0", false}, Case{"2001:db8::/32", false},
        Case{"2001:db8::1/128", false}, Case{"fe80::/10", false}}) {
    SCOPED_TRACE(c.text);
    IpGenPrefix p(c.text);
    EXPECT_EQ(p.isV4(), c.v4);
    expectTextForm(p, c.text);
  }
  EXPECT_EQ(IpGenPrefix(), IpGenPrefix("0.0.0.0/0"));
  EXPECT_TRUE(IpGenPrefix("10.0.0.0/8") < IpGenPrefix("10.0.0.0/9"));
  EXPECT_TRUE(IpGenPrefix("10.0.0.0/24") < IpGenPrefix("::/0"));
}

TEST(IpGenPrefix, TextReaderRefusesHostBitsAndBadLengths) {
  for (const char* text :
       {"10.0.0.1/8", "192.168.1.129/25", "2001:db8::1/32", "::1/127", "10.0.0.0/33", "::/129",
        "10.0.0.0/1000", "10.0.0.0", "10.0.0.0/", "10.0.0.0/x", "10.0.0.0/-1", "10.0.0.0/8/8",
        "10.0.0.0/08",
        "1.2.3/8", "/8", "10.0.0.0/ 8", ""}) {
    expectRefused<IpGenPrefix>(text);
  }
}

TEST(IpGenPrefix, ConstructorClearsHostBitsAndChecksTheLength) {
  struct Case {
    const char* addr;
    uint32_t len;
    const char* prefix;
  };
  for (const Case& c :
       {Case{"10.1.2.3", 8, "10.0.0.0/8"}, Case{"10.1.2.3", 0, "0.0.0.0/0"},
        Case{"192.168.1.255", 25, "192.168.1.128/25"},
        Case{"192.168.1.255", 31, "192.168.1.254/31"}, Case{"10.1.2.3", 32, "10.1.2.3/32"},
        Case{"2001:db8:ffff::1", 33, "2001:db8:8000::/33"},
        Case{"2001:db8::1", 64, "2001:db8::/64"}, Case{"2001:db8::1", 128, "2001:db8::1/128"}}) {
    SCOPED_TRACE(c.prefix);
    IpGenPrefix p(IpGenAddr(c.addr), c.len);
    EXPECT_EQ(p, IpGenPrefix(c.prefix));
    EXPECT_EQ(p.len(), c.len);
  }
  for (const auto& [addr, len] : {std::pair{"10.0.0.0", 33}, {"10.0.0.0", 128}, {"::", 129},
                                  {"::", 256 + 8}}) {
    EXPECT_EQ(errorText<Kel::RangeException>([&] { IpGenPrefix(IpGenAddr(addr), len); }),
              "IpGenPrefix::len > IpGenPrefix::maxLen not allowed");
  }
}

TEST(IpGenPrefix, ContainsAddressesOfItsFamilyOnly) {
  struct Case {
    const char* prefix;
    const char* addr;
    bool in;
  };
  for (const Case& c :
       {Case{"10.0.0.0/8", "10.255.255.255", true}, Case{"10.0.0.0/8", "11.0.0.0", false},
        Case{"192.168.1.128/25", "192.168.1.127", false}, Case{"10.1.2.3/32", "10.1.2.3", true},
        Case{"0.0.0.0/0", "::", false}, Case{"::/0", "2001:db8::1", true},
        Case{"2001:db8::/32", "2001:db9::", false}, Case{"::ffff:0.0.0.0/96", "10.0.0.1", false}}) {
    SCOPED_TRACE(std::string(c.prefix) + " " + c.addr);
    EXPECT_EQ(IpGenPrefix(c.prefix).contains(IpGenAddr(c.addr)), c.in);
  }
}

TEST(MplsLabel, BoundsAndMarkers) {
  for (uint32_t v : {0u, 16u, 0xFFFFFu, 0x100000u, 0x800000u}) {
    expectTextForm(MplsLabel(v), std::to_string(v));
  }
  auto refusal = [](auto v) { return errorText<Kel::RangeException>([&] { MplsLabel l(v); }); };
  for (const std::string& what :
       {refusal(0x800001u), refusal(-1), refusal(uint64_t{1} << 32),
        errorText<Kel::RangeException>([] { Kel::strepToValue<MplsLabel>("8388609"); })}) {
    EXPECT_EQ(what, kLabelRange);
  }

  EXPECT_EQ(MplsLabel::null().value(), 1048576u);
  EXPECT_TRUE(MplsLabel::null().isNull());
  EXPECT_FALSE(MplsLabel::null().isLabel());
  EXPECT_FALSE(MplsLabel(MplsLabel::max).isNull());
  EXPECT_TRUE(MplsLabel(0xFFFFF).isLabel());
  EXPECT_FALSE(MplsLabel(MplsLabel::luWithdraw).isLabel());
  EXPECT_TRUE(MplsLabel(15).isReserved());
  EXPECT_FALSE(MplsLabel(16).isReserved());
}

UnboundedMplsLabelOperation op(Netbase::MplsLabelAction action, std::vector<uint32_t> labels) {
  Netbase::MplsLabelStack stack;
  for (uint32_t l : labels) {
    stack.push_back(MplsLabel(l));
  }
  return UnboundedMplsLabelOperation(action, stack);
}

TEST(UnboundedMplsLabelOperation, TextFormAndLabelStackString) {
  const std::string head = "Value('Netbase::UnboundedMplsLabelOperation', ** {'operation': ";
  auto push = op(Netbase::labelActionPush, {300, 301});
  expectTextForm(push, head + "labelActionPush, 'labelStack': [300, 301]})");

  expectTextForm(UnboundedMplsLabelOperation(), head + "labelActionNone, 'labelStack': []})");
  EXPECT_EQ(UnboundedMplsLabelOperation().labelStackString(), "");
  EXPECT_TRUE(UnboundedMplsLabelOperation().topLabel().isNull());

  EXPECT_TRUE(op(Netbase::labelActionPush, {300}) < push);
  EXPECT_FALSE(push == op(Netbase::labelActionSwap, {300, 301}));

  EXPECT_EQ(errorText<Kel::RangeException>([&] {
              Kel::strepToValue<UnboundedMplsLabelOperation>(
                  head + "labelActionPush, 'labelStack': [300, 8388609]})");
            }),
            "attribute 'labelStack': " + kLabelRange);
}

TEST(UnboundedMplsLabelOperation, BinaryFormRoundTrips) {
  for (const auto& o :
       {UnboundedMplsLabelOperation(), op(Netbase::labelActionPop, {}),
        op(Netbase::labelActionSwap, {3}), op(Netbase::labelActionPush, {300, 301, 302}),
        op(Netbase::labelActionPush, {16, 17, 18, 19, 0x800000})}) {
    SCOPED_TRACE(o);
    const uint32_t len = 4 + 4 * o.labels();
    EXPECT_EQ(o.serializeLen(), len);
    // Exactly `len` bytes on the heap, so that any access past the record is caught.
    std::unique_ptr<uint8_t[]> buf(new uint8_t[len]);
    EXPECT_EQ(o.serialize(buf.get()), len);
    uint16_t count;
    std::memcpy(&count, buf.get(), 2);
    EXPECT_EQ(count, o.labels());
    EXPECT_EQ(buf[2], static_cast<uint8_t>(o.operation()));
    EXPECT_EQ(UnboundedMplsLabelOperation::deserializeLen(buf.get(), len), len);
    UnboundedMplsLabelOperation back = op(Netbase::labelActionSwap, {99});
    EXPECT_EQ(back.deserialize(buf.get(), len), len);
    EXPECT_EQ(back, o);
  }
  // Records back to back: each read returns its own length.
  auto a = op(Netbase::labelActionPush, {300, 301});
  auto b = op(Netbase::labelActionPop, {});
  std::vector<uint8_t> buf(a.serializeLen() + b.serializeLen());
  b.serialize(buf.data() + a.serialize(buf.data()));
  UnboundedMplsLabelOperation x;
  UnboundedMplsLabelOperation y;
  uint32_t used = x.deserialize(buf.data(), buf.size());
  EXPECT_EQ(used, 12u);
  EXPECT_EQ(y.deserialize(buf.data() + used, buf.size() - used), 4u);
  EXPECT_EQ(x, a);
  EXPECT_EQ(y, b);
}

TEST(UnboundedMplsLabelOperation, TruncatedOrOutOfRangeRecordsAreRefused) {
  const auto o = op(Netbase::labelActionPush, {300, 301});
  std::vector<uint8_t> full(o.serializeLen());
  o.serialize(full.data());
  for (size_t len = 0; len < full.size(); ++len) {
    SCOPED_TRACE(len);
    std::unique_ptr<uint8_t[]> buf(new uint8_t[len]);
    std::memcpy(buf.get(), full.data(), len);
    EXPECT_THROW(UnboundedMplsLabelOperation::deserializeLen(buf.get(), len), Kel::SizeError);
    UnboundedMplsLabelOperation back;
    EXPECT_THROW(back.deserialize(buf.get(), len), Kel::SizeError);
  }
  // A head that claims 65535 labels in a 4-byte buffer.
  std::unique_ptr<uint8_t[]> head(new uint8_t[4]{0xff, 0xff, 1, 0});
  EXPECT_THROW(UnboundedMplsLabelOperation::deserializeLen(head.get(), 4), Kel::SizeError);

  uint32_t tooBig = 0x800001;
  std::memcpy(full.data() + 8, &tooBig, 4);
  UnboundedMplsLabelOperation back = op(Netbase::labelActionSwap, {17});
  const UnboundedMplsLabelOperation before = back;
  EXPECT_EQ(errorText<Kel::RangeException>([&] { back.deserialize(full.data(), full.size()); }),
            kLabelRange);
  EXPECT_EQ(back, before);  // a refused record changes nothing

  Netbase::MplsLabelStack huge(UnboundedMplsLabelOperation::kMaxLabels + 1, MplsLabel(16));
  UnboundedMplsLabelOperation tooDeep(Netbase::labelActionPush, huge);
  std::vector<uint8_t> out(tooDeep.serializeLen());
  EXPECT_THROW(tooDeep.serialize(out.data()), Kel::SizeError);
}

}  // namespace
