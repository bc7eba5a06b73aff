#include "TextRenderer/FreeTypeRenderer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>

#include "TextRenderer/src/FreeTypeRendererPimpl.h"

namespace opal::test {
namespace {

using Rect = FreeTypeRenderer::Rect;
using Canvas = std::vector<uint8_t>;
using Lines = std::vector<std::pair<uint32_t, int64_t>>;

constexpr const char* kDejaVu = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
constexpr int kSize = 30;
constexpr int kLineHeight = 39;
constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr Rect kSubtitles = {64, 540, 1216, 684};

class TextTest : public testing::Test {
  protected:
    TextTest() { EXPECT_EQ(OPAL_OK, m_text.InitializeFromFile(kDejaVu, kSize)); }

    /// Letters become boxes of 10 x 20 full pixels, one below the line's top, and all advance
    /// by 10.
    void UseFixedFont(int left = 0) {
        for (const char character : std::string("\r\nABCDEFG")) {
            auto& glyph = m_text.GetPimpl().glyphs[static_cast<uint32_t>(character)];
            glyph.width = static_cast<uint32_t>(10 - left);
            glyph.rows = 20;
            glyph.left = left;
            glyph.top = 1;
            const std::vector<uint8_t> box(200, 255);
            glyph.bitmap.Assign(box.data(), static_cast<size_t>(10 - left) * 20, 0, false);
            for (const char before : std::string("\r\n ABCDEFG"))
                m_text.GetPimpl().kerning[{character, before}] = 0;
        }
    }
    Lines Layout(const std::string& text, int64_t limit) {
        EXPECT_EQ(OPAL_OK, m_text.GetPimpl().Layout(text, limit)) << text;
        Lines lines;
        for (const auto& line : m_text.GetPimpl().lines)
            lines.emplace_back(line.glyphCount, line.width);
        return lines;
    }
    Canvas Draw(const std::string& text, uint32_t alignment, const Rect& rect = kSubtitles) {
        Canvas canvas(size_t{kWidth} * kHeight, 0x55);
        EXPECT_EQ(OPAL_OK, m_text.Render(text, kWidth, kHeight, rect, alignment, 1, canvas.data()));
        return canvas;
    }
    /// The smallest rectangle round all pixels that are not 0; empty for a blank canvas.
    static Rect Bounds(const Canvas& canvas) {
        Rect bounds = {kWidth, kHeight, 0, 0};
        for (int i = 0; i < kWidth * kHeight; ++i) {
            if (canvas[static_cast<size_t>(i)] == 0)
                continue;
            bounds.left = std::min(bounds.left, i % kWidth);
            bounds.right = std::max(bounds.right, i % kWidth + 1);
            bounds.top = std::min(bounds.top, i / kWidth);
            bounds.bottom = std::max(bounds.bottom, i / kWidth + 1);
        }
        return bounds;
    }
    static void ExpectBounds(const Rect& bounds, int left, int top, int right, int bottom) {
        EXPECT_EQ(std::make_tuple(left, top, right, bottom),
                  std::make_tuple(bounds.left, bounds.top, bounds.right, bounds.bottom));
    }
    static bool IsBlank(const Canvas& canvas) {
        return std::all_of(canvas.begin(), canvas.end(), [](uint8_t byte) { return byte == 0; });
    }

    FreeTypeRenderer m_text;
};

TEST_F(TextTest, LinesOfAFixedFont) {
    UseFixedFont();
    const struct {
        std::string text;
        int64_t limit;
        Lines lines;
    } rows[] = {
        {"A\r\nB", 100, {{1, 10}, {1, 10}}},
        {"A\n\nB", 100, {{1, 10}, {0, 0}, {1, 10}}},
        {"A \n B", 100, {{1, 10}, {1, 10}}},
        {"A\n \nB", 100, {{1, 10}, {1, 10}}},  // the second feed meets a line that is empty
        {" \n AB \n ", 100, {{2, 20}}},
        {" \r\n ", 100, {}},
        {"", 100, {}},
        {"A", 0, {}},
        {"AAA BBB", 69, {{7, 69}}},
        {"AAA BBB", 68, {{3, 30}, {3, 30}}},
        {"AAA BBB", 38, {{3, 30}, {3, 30}}},  // the space itself does not fit
        {"AAA BBB\nC", 69, {{7, 69}, {1, 10}}},
        {"AAA \nC", 38, {{3, 30}, {1, 10}}},
        {"A  B", 38, {{4, 38}}},
        {"AAAAAAA BB", 50, {{5, 50}, {5, 49}}},
        {"C AAAAAAA BB", 50, {{1, 10}, {5, 50}, {5, 49}}},
        {std::string("AB\0CD", 5), 100, {{2, 20}}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.lines, Layout(row.text, row.limit)) << row.text << " " << row.limit;

    EXPECT_EQ(OPAL_ERROR_GENERAL, m_text.GetPimpl().Layout("A", 9));
    EXPECT_TRUE(IsBlank(Draw("A", 0, {0, 0, 9, 100})));
}

TEST_F(TextTest, LinesOfDejaVu) {
    EXPECT_EQ((Lines{{1, 28}}), Layout("A", 1000));
    EXPECT_EQ((Lines{{1, 28}}), Layout("V", 1000));
    EXPECT_EQ((Lines{{2, 53}}), Layout("AV", 1000));
    EXPECT_EQ((Lines{{3, 65}}), Layout("A V", 1000));
    EXPECT_EQ((Lines{{3, 65}}), Layout("A V", 65));
    EXPECT_EQ((Lines{{1, 28}, {1, 28}}), Layout("A V", 64));
    EXPECT_EQ((Lines{{2, 53}}), Layout("A\rV", 1000));
    // Accents, Greek, Cyrillic, and a letter beyond 16 bits that the font has.
    const std::string text = "\xC3\xA9\xCE\xA9\xD0\x96\xF0\x9D\x95\x8F";
    ASSERT_EQ(1u, Layout(text, 1000).size());
    EXPECT_EQ(4u, m_text.GetPimpl().lines[0].glyphCount);
    std::set<size_t> coverage;
    for (const auto& [code, glyph] : m_text.GetPimpl().glyphs) {
        size_t sum = 0;
        for (size_t i = 0; i < glyph.bitmap.GetSize(); ++i)
            sum += glyph.bitmap.GetData()[i];
        coverage.insert(sum);
    }
    EXPECT_GE(coverage.size(), 6u) << "letters look alike";
    int asked = 0;
    m_text.SetStop([&asked] { return ++asked > 3; });
    EXPECT_EQ(OPAL_ERROR_TERMINATED, m_text.GetPimpl().Layout("BCDEFG", 1000));
    EXPECT_EQ(1u, m_text.GetPimpl().glyphs.count('D'));
    EXPECT_EQ(0u, m_text.GetPimpl().glyphs.count('E')) << "goes on although nobody wants it";
}

TEST_F(TextTest, AlignsAndCutsFromTheTop) {
    UseFixedFont();
    const Rect rect = {100, 100, 200, 200};
    ExpectBounds(Bounds(Draw("AB", 0, rect)), 100, 101, 120, 121);
    ExpectBounds(Bounds(Draw("AB", 1 | 4, rect)), 140, 131, 160, 151);
    ExpectBounds(Bounds(Draw("AB", 1 | 2 | 4 | 8, rect)), 140, 131, 160, 151);
    ExpectBounds(Bounds(Draw("AB", 2 | 8, rect)), 180, 162, 200, 182);
    ExpectBounds(Bounds(Draw("A\nBBB", 2, rect)), 170, 101, 200, 160);
    // Where subtitles stand: the last lines are shown, and a fourth has no room.
    const int tops[] = {645, 606, 567, 567};
    std::string text = "AAAA";
    for (const int top : tops) {
        ExpectBounds(Bounds(Draw(text, 9)), 620, top + 1, 660, 666);
        text += "\nAAAA";
    }
    const Canvas four = Draw("AAAAAA\nBB\nBB\nBB", 9);
    ExpectBounds(Bounds(four), 630, 568, 650, 666);
    // From the top, what does not fit below is not drawn.
    ExpectBounds(Bounds(Draw("A\nA\nA", 0, rect)), 100, 101, 110, 160);
    EXPECT_TRUE(IsBlank(Draw("A", 0, {100, 100, 200, 100 + kLineHeight - 1})));

    // The left bearing moves what follows, not the letter itself.
    UseFixedFont(2);
    ExpectBounds(Bounds(Draw("AB", 0, rect)), 100, 101, 118, 121);
}

TEST_F(TextTest, ClipsAtTheCanvasAndLeavesWhatItMust) {
    UseFixedFont();
    ExpectBounds(Bounds(Draw("AB", 0, {-15, -10, 85, 90})), 0, 0, 5, 11);
    ExpectBounds(Bounds(Draw("AB", 0, {1265, 710, 1365, 810})), 1265, 711, 1280, 720);
    EXPECT_TRUE(IsBlank(Draw("AB", 0, {2000, 2000, 3000, 3000})));
    EXPECT_TRUE(IsBlank(Draw("AB", 9, {-2147483647 - 1, 0, 2147483647, 2147483647})));
    const Canvas untouched(size_t{kWidth} * kHeight, 0x55);
    EXPECT_EQ(untouched, Draw("", 9));
    EXPECT_EQ(untouched, Draw("A", 9, {10, 10, 10, 20}));
    EXPECT_TRUE(IsBlank(Draw(" \n", 9)));
    Canvas canvas(16, 0x55);
    for (const uint32_t format : {2u, 7u})
        EXPECT_EQ(OPAL_OK, m_text.Render("A", 4, 4, {0, 0, 4, 4}, 0, format, canvas.data()));
    EXPECT_EQ(OPAL_OK, m_text.Render("A", 0, 4, {0, 0, 4, 4}, 0, 1, canvas.data()));
    EXPECT_EQ(OPAL_OK, m_text.Render("A", 4, 4, {0, 0, 4, 4}, 0, 1, nullptr));
    EXPECT_EQ(Canvas(16, 0x55), canvas);
}

TEST(TextBlending, TheGreaterCoverageStaysInBothFormats) {
    const uint8_t glyph[] = {10, 200, 0, 90};
    uint8_t alpha[] = {50, 50, 50, 50, 50, 50};
    SlowRenderGlyphAlpha(glyph, 2, 2, alpha, 1, 0, 3, 2);
    EXPECT_THAT(alpha, testing::ElementsAre(50, 50, 200, 50, 50, 90));
    uint32_t colour[] = {0x32000000, 0x32000000, 0x32123456, 7};
    SlowRenderGlyphRGBA32(glyph, 2, 2, colour, 0, 0, 2, 2);
    EXPECT_THAT(colour, testing::ElementsAre(0x32FFFFFFu, 0xC8FFFFFFu, 0x32FFFFFFu, 0x5AFFFFFFu));
}

TEST_F(TextTest, BrokenUTF8IsNoText) {
    for (const std::string text :
         {"A\x80", "A\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
          "\xF8\x88\x80\x80\x80", "\xE2\x82", "A\xE2\x28\xA1", "\xFF"}) {
        EXPECT_EQ(OPAL_ERROR_GENERAL, m_text.GetPimpl().Layout(text, 1000)) << text;
        EXPECT_TRUE(IsBlank(Draw(text, 9)));
    }
    EXPECT_EQ(OPAL_ERROR_GENERAL, m_text.GetPimpl().Layout(std::string(1, '\0'), 1000));
    EXPECT_EQ((Lines{{2, 53}}), Layout("AV", 1000)) << "a broken text leaves nothing behind";
}

TEST(TextFont, IsRefusedOrReadOnce) {
    std::ifstream file(kDejaVu, std::ios::binary);
    const std::string font{std::istreambuf_iterator<char>(file), {}};
    FreeTypeRenderer text;
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, text.InitializeFromFile("", kSize));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, text.InitializeFromFile(kDejaVu, 0));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, text.InitializeFromMemory(nullptr, 10, kSize));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, text.InitializeFromMemory("x", 0, kSize));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, text.InitializeFromMemory("x", 1, -1));
    EXPECT_EQ(OPAL_ERROR_GENERAL, text.InitializeFromFile("/nonexistent", kSize));
    EXPECT_EQ(OPAL_ERROR_GENERAL, text.InitializeFromMemory("garbage", 7, kSize));
    EXPECT_EQ(OPAL_ERROR_GENERAL, text.InitializeFromMemory(font.data(), 300, kSize));
    uint8_t pixel = 7;
    EXPECT_EQ(OPAL_OK, text.Render("A", 1, 1, {0, 0, 1, 1}, 0, 1, &pixel));
    EXPECT_EQ(7, pixel) << "drawn without a font";
    // A refused font leaves room for the next one.
    ASSERT_EQ(OPAL_OK, text.InitializeFromMemory(font.data(), font.size(), kSize));
    EXPECT_EQ(OPAL_ERROR_NOT_READY, text.InitializeFromFile(kDejaVu, kSize));
    EXPECT_EQ(OPAL_OK, text.GetPimpl().Layout("A", 100));
}

}  // namespace
}  // namespace opal::test
