#include "tools/quilctl/files/screen_picture.h"

#include <stdio.h>

#include <algorithm>
#include <cmath>

namespace quil::tools {
namespace {

constexpr size_t kCardSize = 16, kCurveStride = 0x10000, kCurveSize = 2048, kCurves = 3;
constexpr size_t kPoints = 64;      // of a curve
constexpr size_t kCardsMost = 240;  // that are drawn of a chain

std::string hexAddress(uint32_t address) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", address);
    return text;
}

// The value at the begin of each stretch.
std::vector<uint16_t> pointsOf(std::span<const uint8_t> data) {
    const size_t count = data.size() / 2, most = std::min(kPoints, count);
    std::vector<uint16_t> points;
    for (size_t i = 0; i < most; ++i) {
        const size_t at = i * count / most * 2;
        points.push_back(static_cast<uint16_t>(data[at] << 8 | data[at + 1]));
    }
    return points;
}

void addCurves(ScreenPicture& picture, const ScreenFileBlock& block) {
    for (size_t i = 0; i < kCurves; ++i) {
        const size_t from = std::min(i * kCurveStride, block.data.size());
        const size_t size = std::min(kCurveSize, block.data.size() - from);
        picture.curves.push_back({static_cast<uint32_t>(block.address + i * kCurveStride),
                                  pointsOf(block.data.subspan(from, size))});
    }
}

void addChain(ScreenPicture& picture, const ScreenFileBlock& block) {
    const size_t cards = block.frames.empty() ? 0 : block.frames.front().count;
    const size_t own = block.data.size() / kCardSize;
    picture.chains.push_back({block.address, cards, cards > own ? cards - own : 0});
}

// ---- SVG

constexpr int kWide = 960, kLabelWide = 300, kRow = 20, kGap = 10, kSide = 14, kPitch = 18;
constexpr int kCardsInARow = (kWide - kLabelWide) / kPitch;
constexpr int kPanelWide = 300, kPanelHigh = 140;
constexpr char kInk[] = "#1b1d21", kBlue[] = "#0064a4", kGrey[] = "#5d6470";

std::string svgNumber(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%g", value);
    return text;
}

class Svg {
  public:
    void title(const std::string& text) {
        mY += kRow;
        label(0, mY, text, "title");
        mY += kGap;
    }
    void label(double x, double y, const std::string& text, const char* kind = "label") {
        mBody.append("<text class=\"").append(kind).append("\" x=\"").append(svgNumber(x));
        mBody.append("\" y=\"").append(svgNumber(y)).append("\" fill=\"").append(kInk);
        mBody.append("\">").append(text).append("</text>\n");
    }
    void box(double x, double y, double wide, double high, const char* kind, const char* fill) {
        mBody.append("<rect class=\"").append(kind).append("\" x=\"").append(svgNumber(x));
        mBody.append("\" y=\"").append(svgNumber(y)).append("\" width=\"").append(svgNumber(wide));
        mBody.append("\" height=\"").append(svgNumber(high)).append("\" fill=\"").append(fill);
        mBody.append("\"/>\n");
    }
    void line(const std::string& points) {
        mBody.append("<polyline class=\"curve\" fill=\"none\" stroke=\"").append(kBlue);
        mBody.append("\" stroke-width=\"2\" points=\"").append(points).append("\"/>\n");
    }
    void begin(uint32_t address) {
        mBody.append("<g data-address=\"").append(std::to_string(address)).append("\">\n");
    }
    void end() { mBody.append("</g>\n"); }
    void down(double by) { mY += by; }
    double y() const { return mY; }

    std::string finish() const {
        const std::string size = std::to_string(kWide) + " " + svgNumber(mY + kRow);
        std::string text = "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 ";
        return text.append(size)
            .append("\" font-family=\"sans-serif\" font-size=\"14\">\n")
            .append("<rect class=\"paper\" width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n")
            .append(mBody)
            .append("</svg>\n");
    }

  private:
    std::string mBody;
    double mY = 0;
};

void drawBars(Svg& svg, const ScreenPicture& picture) {
    svg.title("Blocks, the longer the more bytes (logarithmic)");
    for (const auto& bar : picture.bars) {
        constexpr double kMostBits = 21;  // of a partition's size
        const double part = std::log2(static_cast<double>(bar.length) + 1) / kMostBits;
        svg.begin(bar.address);
        svg.label(0, svg.y() + kSide, hexAddress(bar.address) + "  " + bar.kind);
        svg.box(kLabelWide, svg.y() + 3, part * (kWide - kLabelWide - 120), kSide, "block", kBlue);
        svg.label(kWide - 110, svg.y() + kSide, std::to_string(bar.length) + " bytes");
        svg.end();
        svg.down(kRow);
    }
}

void drawChain(Svg& svg, const ScreenPicture::Chain& chain) {
    const size_t shown = std::min(chain.cards, kCardsMost);
    svg.begin(chain.address);
    svg.label(
        0, svg.y() + kSide,
        hexAddress(chain.address) + "  " + std::to_string(chain.cards) + " cards" +
            (chain.foreign != 0 ? ", " + std::to_string(chain.foreign) + " of other blocks' data"
                                : ""));
    for (size_t i = 0; i < shown; ++i) {
        const bool isForeign = i >= chain.cards - chain.foreign;
        const size_t column = i % kCardsInARow, row = i / kCardsInARow;
        svg.box(kLabelWide + static_cast<double>(column) * kPitch,
                svg.y() + 3 + static_cast<double>(row) * kPitch, kSide, kSide,
                isForeign ? "card foreign" : "card", isForeign ? kGrey : kBlue);
    }
    svg.end();
    const size_t rows = shown == 0 ? 1 : (shown + kCardsInARow - 1) / kCardsInARow;
    svg.down(static_cast<double>(rows) * kPitch + 4);
}

void drawCurve(Svg& svg, const ScreenPicture::Curve& curve, double x) {
    constexpr double kHighest = 65535;
    const double most = std::max<double>(static_cast<double>(curve.values.size()) - 1, 1);
    std::string points;
    for (size_t i = 0; i < curve.values.size(); ++i) {
        points.append(svgNumber(x + static_cast<double>(i) / most * kPanelWide)).append(",");
        points.append(svgNumber(svg.y() + kPanelHigh * (1 - curve.values[i] / kHighest)))
            .append(" ");
    }
    svg.box(x, svg.y(), kPanelWide, kPanelHigh, "panel", "#f3f5f8");
    svg.line(points);
    svg.label(x, svg.y() + kPanelHigh + kSide, "to " + hexAddress(curve.address));
}

void drawCurves(Svg& svg, const ScreenPicture& picture) {
    for (size_t i = 0; i < picture.curves.size(); i += kCurves) {
        svg.begin(picture.curves[i].address);
        for (size_t k = 0; k < kCurves; ++k) {
            drawCurve(svg, picture.curves[i + k], static_cast<double>(k) * (kPanelWide + 30));
        }
        svg.end();
        svg.down(kPanelHigh + 2 * kRow);
    }
}

// ---- A terminal

std::string repeated(const char* what, size_t times) {
    std::string text;
    for (size_t i = 0; i < times; ++i) text += what;
    return text;
}

std::string textCurve(const ScreenPicture::Curve& curve) {
    const std::string heights = "▁▂▃▄▅▆▇█";
    constexpr size_t kCharacter = 3;  // bytes
    std::string text = hexAddress(curve.address) + "  ";
    for (const uint16_t value : curve.values)
        text += heights.substr((value >> 13) * kCharacter, kCharacter);
    return text + "\n";
}

}  // namespace

ScreenPicture pictureOf(const ScreenFile& file) {
    constexpr uint32_t kGamma = 0x10400000, kFirst = 0x10B00000, kLast = 0x10B4C000;
    ScreenPicture picture;
    for (const ScreenFileBlock& block : file.blocks) {
        picture.bars.push_back({block.address, block.kind, block.data.size()});
        if (block.address == kGamma) addCurves(picture, block);
        if (block.address >= kFirst && block.address <= kLast) addChain(picture, block);
    }
    return picture;
}

std::string svgOf(const ScreenPicture& picture) {
    Svg svg;
    if (!picture.chains.empty()) {
        svg.title("Topologies: a square for each card");
        for (const auto& chain : picture.chains) drawChain(svg, chain);
    }
    if (!picture.curves.empty()) {
        svg.title(
            "Gamma: the values that are sent, as 16-bit numbers, most significant byte first");
        drawCurves(svg, picture);
    }
    drawBars(svg, picture);
    return svg.finish();
}

std::string textPictureOf(const ScreenPicture& picture) {
    std::string text;
    for (const auto& chain : picture.chains) {
        const size_t shown = std::min(chain.cards, kPoints);
        const size_t own = std::min(chain.cards - chain.foreign, shown);
        const std::string cards = repeated("■", own) + repeated("□", shown - own);
        text += hexAddress(chain.address) + "  " + cards + (shown < chain.cards ? " .." : "") +
                "  " + std::to_string(chain.cards) + " cards\n";
    }
    for (const auto& curve : picture.curves) text += textCurve(curve);
    return text;
}

}  // namespace quil::tools
