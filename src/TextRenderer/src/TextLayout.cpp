#include "TextRenderer/src/FreeTypeRendererPimpl.h"

// How a text becomes words, and words lines.
namespace {

using Text = FreeTypeRenderer::PIMPL::Text;

constexpr unsigned long kReturnCharacter = '\r';
constexpr unsigned long kFeedCharacter = '\n';
constexpr unsigned long kSpaceCharacter = ' ';
const Text kReturn(1, kReturnCharacter);
const Text kFeed(1, kFeedCharacter);
const Text kSpace(1, kSpaceCharacter);
const Text kSpaceAndFeed = kSpace + kFeed;

// The renderer's own spaces: the font's are not used.
int SpaceAdvance(int pointSize) {
    return static_cast<int>(int64_t{pointSize} * 30 / 100);
}

FreeTypeRenderer::PIMPL::WordType TypeOf(unsigned long character) {
    using Type = FreeTypeRenderer::PIMPL::WordType;
    if (kSpace.find(character) != Text::npos)
        return Type::Spaces;
    return kFeed.find(character) != Text::npos ? Type::LineFeeds : Type::Word;
}

void Remove(Text& text, const Text& characters) {
    size_t kept = 0;
    for (const unsigned long character : text) {
        if (characters.find(character) == Text::npos)
            text[kept++] = character;
    }
    text.resize(kept);
}

void Trim(Text& text, const Text& characters) {
    const size_t first = text.find_first_not_of(characters);
    if (first == Text::npos) {
        text.clear();
        return;
    }
    text.erase(text.find_last_not_of(characters) + 1);
    text.erase(0, first);
}

}  // namespace

OPALError FreeTypeRenderer::PIMPL::Layout(const std::string& utf8, int64_t limit) {
    words.clear();
    lines.clear();
    if (utf8.empty() || limit < 1)
        return OPAL_OK;
    OPALError error = opal::DecodeUTF8(utf8, characters);
    if (error == OPAL_OK)
        error = CacheText();
    if (error != OPAL_OK)
        return error;
    Remove(characters, kReturn);
    Trim(characters, kSpaceAndFeed);
    error = BuildWords();
    return error == OPAL_OK ? BuildLines(limit) : error;
}

OPALError FreeTypeRenderer::PIMPL::BuildWords() {
    unsigned long previous = 0;
    for (const unsigned long& character : characters) {
        if (IsStopped())
            return OPAL_ERROR_TERMINATED;
        const WordType type = TypeOf(character);
        if (words.empty() || words.back().type != type) {
            words.emplace_back();
            words.back().type = type;
            words.back().first = &character;
        }
        const auto found = glyphs.find(static_cast<uint32_t>(character));
        if (found == glyphs.end())
            return OPAL_ERROR_INVALID_ARGUMENT;
        const Glyph& glyph = found->second;
        Word& word = words.back();
        if (type == WordType::Spaces) {
            word.glyphs.emplace_back(nullptr, SpaceAdvance(pointSize));
        } else {
            // A pair may be new here: what stood between it has been removed.
            const uint32_t code = static_cast<uint32_t>(character);
            const uint32_t before = static_cast<uint32_t>(previous);
            if (const OPALError error = CacheKerning(code, before))
                return error;
            const auto pair = kerning.find({code, before});
            const int kern = pair == kerning.end() ? 0 : pair->second;
            word.glyphs.emplace_back(&glyph, static_cast<int>(glyph.width) + glyph.left + kern);
        }
        word.width += word.glyphs.back().second;
        previous = character;
    }
    return OPAL_OK;
}

// A line is empty when it has no glyphs; a width may be 0 or below all the same.
OPALError FreeTypeRenderer::PIMPL::BuildLines(int64_t limit) {
    const auto add = [this](const Word& word) {
        lines.back().glyphCount += static_cast<uint32_t>(word.glyphs.size());
        lines.back().width += word.width;
    };
    std::vector<Word> kept;  // lines count the glyphs of these words only
    kept.reserve(words.size());
    for (size_t i = 0; i < words.size(); ++i) {
        if (lines.empty())
            lines.emplace_back();
        Word& word = words[i];
        const bool onEmptyLine = lines.back().glyphCount == 0;
        const bool fits = lines.back().width + word.width <= limit;
        if (word.type == WordType::LineFeeds) {
            lines.resize(lines.size() + word.glyphs.size() - (onEmptyLine ? 1 : 0));
            continue;
        }
        if (word.type == WordType::Spaces) {
            const bool wordFollows = i + 1 < words.size() && words[i + 1].type == WordType::Word;
            if (onEmptyLine)
                continue;
            if (fits && !wordFollows)
                continue;
            // Spaces stay only if the word after them fits behind them.
            if (!fits || lines.back().width + word.width + words[i + 1].width > limit) {
                lines.emplace_back();
                continue;
            }
            add(word);
        } else if (fits) {
            add(word);
        } else {
            if (!onEmptyLine)
                lines.emplace_back();
            if (word.width <= limit)
                add(word);
            else if (const OPALError error = BreakWord(word, limit))
                return error;
        }
        kept.push_back(std::move(word));
    }
    words = std::move(kept);
    return OPAL_OK;
}

// A word that is wider than the limit breaks between its glyphs.
OPALError FreeTypeRenderer::PIMPL::BreakWord(const Word& word, int64_t limit) {
    uint32_t taken = 0;  // by the current line
    for (size_t i = 0; i < word.glyphs.size();) {
        const int advance = word.glyphs[i].second;
        if (lines.back().width + advance <= limit) {
            ++lines.back().glyphCount;
            lines.back().width += advance;
            ++taken;
            ++i;
        } else if (taken == 0) {
            return OPAL_ERROR_GENERAL;
        } else {
            lines.emplace_back();
            taken = 0;
        }
    }
    return OPAL_OK;
}
