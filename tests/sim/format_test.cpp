// The simulator's Windows printf rules, as driver format strings rely on them: argument sizes
// (`l` is 32 bits, I64/ll/I are 64), flags, width and precision (including `*`), %p without "0x",
// counted strings (%Z, %wZ), the character-width switches of narrow and wide formatting
// (%s %S %hs %ls %ws %c %C %wc), "(null)", and the UTF-8 / UTF-16 conversions used for printing.
//
// Results are compared as std::string (wide output converted to UTF-8) or std::u16string, never as
// wchar_t strings, so that GoogleTest's printing is not handed 16-bit wchar_t text.

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

#include "ntsim/base.h"
#include "rtl/format.h"

namespace {

std::string F(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string out = ntsim::FormatNarrow(format, args);
  va_end(args);
  return out;
}

std::u16string W16(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  std::u16string out = ntsim::FormatWide(format, args);
  va_end(args);
  return out;
}

std::string W(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  std::string out = ntsim::Utf16ToUtf8(ntsim::FormatWide(format, args));
  va_end(args);
  return out;
}

UNICODE_STRING Unicode(wchar_t* buffer, USHORT chars) {
  UNICODE_STRING s;
  s.Length = static_cast<USHORT>(chars * sizeof(WCHAR));
  s.MaximumLength = s.Length;
  s.Buffer = buffer;
  return s;
}

ANSI_STRING Ansi(char* buffer, USHORT chars) {
  ANSI_STRING s;
  s.Length = chars;
  s.MaximumLength = chars;
  s.Buffer = buffer;
  return s;
}

TEST(FormatTest, IntegerSizesFollowWindowsNotLinux) {
  // `l` is a 32-bit LONG / ULONG: reading 64 bits would show the sign-extension difference.
  EXPECT_EQ(F("%lx", static_cast<ULONG>(0xFFFFFFFF)), "ffffffff");
  EXPECT_EQ(F("%ld", static_cast<LONG>(-1)), "-1");
  EXPECT_EQ(F("%lu", static_cast<ULONG>(4000000000u)), "4000000000");
  EXPECT_EQ(F("%08lx", static_cast<ULONG>(0xC0000022)), "c0000022");
  EXPECT_EQ(F("%08lx", static_cast<ULONG>(0x1234)), "00001234");
  EXPECT_EQ(F("%I32x %I32d", 0xFFFFFFFFu, -7), "ffffffff -7");

  EXPECT_EQ(F("%I64x", 0x123456789ABCDEF0ull), "123456789abcdef0");
  EXPECT_EQ(F("%I64X", 0xFFFFF80012345678ull), "FFFFF80012345678");
  EXPECT_EQ(F("%I64d", static_cast<LONGLONG>(-9223372036854775807ll - 1)), "-9223372036854775808");
  EXPECT_EQ(F("%llu", 18446744073709551615ull), "18446744073709551615");
  EXPECT_EQ(F("%lld", -5ll), "-5");
  EXPECT_EQ(F("%Ix %zu %Iu", static_cast<ULONG_PTR>(0x100000000ull),
              static_cast<SIZE_T>(1ull << 40), static_cast<SIZE_T>(7)),
            "100000000 1099511627776 7");

  EXPECT_EQ(F("%hd %hd %hu %hx", 0x12345, 0xFFFF, 0x1FFFF, 0xABCDEF), "9029 -1 65535 cdef");
  EXPECT_EQ(F("%u %x %d", -1, -1, -2147483647 - 1), "4294967295 ffffffff -2147483648");
  EXPECT_EQ(F("%o %X %i", 8, 0xBEEF, 42), "10 BEEF 42");

  // Mixed sizes in one call: each conversion consumes exactly its own argument.
  EXPECT_EQ(F("%I64x %lx %d %llu %s", 0x1122334455667788ull, static_cast<ULONG>(0xFFFFFFFF), 5,
              3ull, "end"),
            "1122334455667788 ffffffff 5 3 end");
}

TEST(FormatTest, FlagsWidthAndPrecision) {
  EXPECT_EQ(F("%-5d|", 3), "3    |");
  EXPECT_EQ(F("%5d|", -3), "   -3|");
  EXPECT_EQ(F("%+d %+d %+u", 5, -5, 5u), "+5 -5 5");
  EXPECT_EQ(F("% d % d %+ d", 5, -5, 5), " 5 -5 +5");
  EXPECT_EQ(F("%05d %-05d|", -42, -42), "-0042 -42  |");
  EXPECT_EQ(F("%.3d %08.3d %.0d|%.0x|", 7, 7, 0, 0), "007      007 ||");

  EXPECT_EQ(F("%#x %#X %#o %#o", 255, 255, 8, 0), "0xff 0XFF 010 0");
  EXPECT_EQ(F("%#x|%#06x|%#010x", 0, 0x1f, 0xff), "0|0x001f|0x000000ff");
  EXPECT_EQ(F("%#10x|%-#10x|", 0xab, 0xab), "      0xab|0xab      |");

  // `*` takes width and precision from the arguments; a negative width left-justifies and a
  // negative precision counts as none.
  EXPECT_EQ(F("%*d|%*d|", 4, 1, -4, 1), "   1|1   |");
  EXPECT_EQ(F("%.*d|%.*d", 3, 5, -1, 5), "005|5");
  EXPECT_EQ(F("%*.*s|", 6, 2, "abcdef"), "    ab|");
  EXPECT_EQ(F("%*s|%*s|", 0, " ", 3, " "), " |   |");
}

TEST(FormatTest, PointersAreSixteenUppercaseDigits) {
  EXPECT_EQ(F("%p", reinterpret_cast<void*>(0x1234)), "0000000000001234");
  EXPECT_EQ(F("%p", reinterpret_cast<void*>(0xFFFF8000ABCDEF01ull)), "FFFF8000ABCDEF01");
  EXPECT_EQ(F("%p", static_cast<void*>(nullptr)), "0000000000000000");
  EXPECT_EQ(F("[%20p]", reinterpret_cast<void*>(0xab)), "[    00000000000000AB]");
  EXPECT_EQ(W(L"%p %d", reinterpret_cast<void*>(0x1234), 9), "0000000000001234 9");
}

TEST(FormatTest, NarrowStringsAndCharacters) {
  EXPECT_EQ(F("[%s] [%hs] [%-6s] [%6s]", "abc", "def", "ab", "ab"),
            "[abc] [def] [ab    ] [    ab]");
  EXPECT_EQ(F("%05s", "ab"), "000ab");  // Windows zero-pads strings too
  EXPECT_EQ(F("%s|%.3s|%ws", static_cast<char*>(nullptr), static_cast<char*>(nullptr),
              static_cast<wchar_t*>(nullptr)),
            "(null)|(nu|(null)");

  // A precision bounds the read: this buffer has no terminator (ASan would catch a longer read).
  const char unterminated[3] = {'x', 'y', 'z'};
  EXPECT_EQ(F("%.3s", unterminated), "xyz");
  const wchar_t unterminated_wide[2] = {L'p', L'q'};
  EXPECT_EQ(F("%.2ws", unterminated_wide), "pq");

  // In narrow formatting %S, %ls and %ws take wide strings.
  EXPECT_EQ(F("%S|%ls|%ws|%-7ws|", L"one", L"two", L"three", L"four"), "one|two|three|four   |");
  EXPECT_EQ(F("%c%hc%C%wc%lc", 'a', 'b', L'C', L'D', L'E'), "abCDE");
  EXPECT_EQ(F("[%3c][%-3c]", 'x', 'y'), "[  x][y  ]");
}

TEST(FormatTest, CountedStrings) {
  // The buffer continues past Length and has no terminator: only Length bytes are printed.
  wchar_t wide[] = {L'C', L':', L'\\', L'x', L'#', L'#'};
  UNICODE_STRING name = Unicode(wide, 4);
  EXPECT_EQ(F("[%wZ]", &name), "[C:\\x]");
  EXPECT_EQ(F("[%.2wZ] [%8wZ] [%-6wZ]", &name, &name, &name), "[C:] [    C:\\x] [C:\\x  ]");
  EXPECT_EQ(F("%lZ", &name), "C:\\x");

  UNICODE_STRING odd = name;
  odd.Length = 5;  // a byte count that is not whole WCHARs prints the whole ones
  EXPECT_EQ(F("[%wZ]", &odd), "[C:]");

  char narrow[] = {'a', 'b', 'c', 'd', '!'};
  ANSI_STRING ansi = Ansi(narrow, 4);
  EXPECT_EQ(F("[%Z] [%.1Z] [%5Z]", &ansi, &ansi, &ansi), "[abcd] [a] [ abcd]");

  UNICODE_STRING no_buffer = Unicode(nullptr, 0);
  ANSI_STRING no_ansi_buffer = Ansi(nullptr, 0);
  EXPECT_EQ(F("%wZ|%wZ|%Z|%Z", static_cast<UNICODE_STRING*>(nullptr), &no_buffer,
              static_cast<ANSI_STRING*>(nullptr), &no_ansi_buffer),
            "(null)|(null)|(null)|(null)");

  UNICODE_STRING empty = Unicode(wide, 0);
  EXPECT_EQ(F("[%wZ]", &empty), "[]");

  // In wide formatting %Z is still the 8-bit STRING and %wZ the UNICODE_STRING.
  EXPECT_EQ(W(L"%wZ/%Z/%.1wZ", &name, &ansi, &name), "C:\\x/abcd/C");
}

TEST(FormatTest, WideFormattingSwapsTheDefaultWidths) {
  EXPECT_EQ(W(L"%s|%ls|%ws|%S|%hs", L"w1", L"w2", L"w3", "n1", "n2"), "w1|w2|w3|n1|n2");
  EXPECT_EQ(W(L"%c%lc%wc%C%hc", L'a', L'b', L'c', 'd', 'e'), "abcde");
  EXPECT_EQ(W(L"%s|%S", static_cast<wchar_t*>(nullptr), static_cast<char*>(nullptr)),
            "(null)|(null)");
  EXPECT_EQ(W(L"%lx %I64x %hd %-4d| %#x %08.3d", static_cast<ULONG>(0xFFFFFFFF), 0xABCDEF0123ull,
              0x18000, 7, 16, 5),
            "ffffffff abcdef0123 -32768 7   | 0x10      005");
  EXPECT_EQ(W(L"%*s|%*s|", 0, L" ", 3, L" "), " |   |");
}

TEST(FormatTest, PercentUnknownAndUnsupportedConversions) {
  EXPECT_EQ(F("100%% %d%%", 5), "100% 5%");
  EXPECT_EQ(F("a%yb %d", 3), "ayb 3");  // unknown conversion printed as itself, no argument taken
  EXPECT_EQ(F("trailing %"), "trailing ");
  EXPECT_EQ(W(L"50%%"), "50%");

  // %n writes nothing anywhere, but its argument is consumed so that later ones line up.
  int count = -1;
  EXPECT_EQ(F("ab%ncd %d", &count, 8), "abcd 8");
  EXPECT_EQ(count, -1);
}

TEST(FormatTest, NonAsciiCrossesWidthsAsUtf8) {
  // Wide text into narrow output becomes UTF-8, surrogate pairs included.
  EXPECT_EQ(F("%ws", L"Gr\u00fc\u00dfe"), "Gr\xc3\xbc\xc3\x9f" "e");
  EXPECT_EQ(F("%S", L"\u20ac\U0001F600"), "\xe2\x82\xac\xf0\x9f\x98\x80");
  EXPECT_EQ(F("%C", L'\u00e9'), "\xc3\xa9");
  UNICODE_STRING name = Unicode(const_cast<wchar_t*>(L"\u65e5\u672c"), 2);
  EXPECT_EQ(F("%wZ", &name), "\xe6\x97\xa5\xe6\x9c\xac");

  // An unpaired surrogate, or a pair split by the precision, prints U+FFFD.
  const wchar_t lone[] = {0xD83D, L'x', 0};
  EXPECT_EQ(F("%ws", lone), "\xef\xbf\xbdx");
  EXPECT_EQ(F("%.1ws", L"\U0001F600"), "\xef\xbf\xbd");

  // Narrow UTF-8 text into wide output is decoded; non-ASCII format text passes through.
  EXPECT_EQ(W16(L"%S|%hs", "\xc3\xa9t\xc3\xa9", "\xf0\x9f\x98\x80"), u"\u00e9t\u00e9|\U0001F600");
  EXPECT_EQ(W16(L"\u00e4%d\U0001F600", 1), u"\u00e4" "1\U0001F600");
  EXPECT_EQ(F("\xc3\xa4%d", 1), "\xc3\xa4" "1");
}

TEST(FormatTest, Utf8AndUtf16Conversion) {
  const std::u16string text = u"a\u00e9\u20ac\U0001F600z";
  const std::string utf8 = "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z";
  EXPECT_EQ(ntsim::Utf16ToUtf8(text), utf8);
  EXPECT_EQ(ntsim::Utf8ToUtf16(utf8), text);
  EXPECT_EQ(ntsim::Utf8ToUtf16(std::string("a\0b", 3)), std::u16string(u"a\0b", 3));

  // Unpaired surrogates: high at the end, low alone, high followed by a non-surrogate.
  EXPECT_EQ(ntsim::Utf16ToUtf8(std::u16string{0xD800}), "\xef\xbf\xbd");
  EXPECT_EQ(ntsim::Utf16ToUtf8(std::u16string{0xDC00, u'a'}), "\xef\xbf\xbd" "a");
  EXPECT_EQ(ntsim::Utf16ToUtf8(std::u16string{0xD800, u'a', 0xD800, 0xDFFF}),
            "\xef\xbf\xbd" "a\xf0\x90\x8f\xbf");

  // Malformed UTF-8: one U+FFFD per maximal bad subsequence, the good bytes after it kept.
  EXPECT_EQ(ntsim::Utf8ToUtf16("\xc0\xaf"), u"\uFFFD\uFFFD");           // overlong
  EXPECT_EQ(ntsim::Utf8ToUtf16("\xed\xa0\x80"), u"\uFFFD\uFFFD\uFFFD");  // encoded surrogate
  EXPECT_EQ(ntsim::Utf8ToUtf16("\xf4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD");  // > U+10FFFF
  EXPECT_EQ(ntsim::Utf8ToUtf16("\xe2\x82z"), u"\uFFFDz");               // truncated sequence
  EXPECT_EQ(ntsim::Utf8ToUtf16("x\xe2\x82"), u"x\uFFFD");               // truncated at the end
  EXPECT_EQ(ntsim::Utf8ToUtf16("\x80\xff"), u"\uFFFD\uFFFD");           // stray bytes
  EXPECT_EQ(W16(L"%C", 0xE9), u"\uFFFD");  // a lone non-ASCII byte is not UTF-8
}

}  // namespace
