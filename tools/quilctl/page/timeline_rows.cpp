#include "tools/quilctl/page/timeline_rows.h"

#include <algorithm>

#include "tools/quilctl/output/values.h"
#include "tools/quilctl/traces/event_arguments.h"
#include "tools/quilctl/traces/event_fields.h"

namespace quil::tools {
namespace {

constexpr size_t kRowsMost = 1500000;  // bytes
constexpr size_t kBytesMost = 262144, kBytesOfEach = 64;

Json fieldsWithBytes(const board::Event& event, size_t bytesMost) {
    Json fields = Json::array();
    for (const DecodedField& field : fieldsOf(event)) {
        const auto bytes = host::ByteView(event.bytes).from(field.at);
        fields.push_back({field.name, toShortHex(bytes.first(field.size), bytesMost), field.value});
    }
    return fields;
}

// Log lines with the same shape differ only in their numbers.
std::string shapeOf(const std::string& text) {
    std::string shape;
    bool isNumber = false;
    for (const char c : text) {
        const bool isDigit = c >= '0' && c <= '9';
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        isNumber = isDigit || (isNumber && isLetter);
        if (!isNumber) shape += c;
        if (isNumber && (shape.empty() || shape.back() != '#')) shape += '#';
    }
    return shape;
}

class Rows {
  public:
    explicit Rows(size_t bytesOfEach) : mBytesOfEach(bytesOfEach) {}

    void add(int64_t id, const Span& span, const board::Event* event) {
        const bool isLog = event != nullptr && event->kind == board::EventKind::kLog;
        std::string shape = isLog ? event->source + shapeOf(event->text) : "";
        if (isLog && shape == mShape) return merge(span);
        finishRun();
        mShape = std::move(shape);
        put(rowOf(id, span, event, mBytesOfEach));
    }

    ReportRows finish() {
        finishRun();
        return std::move(mRows);
    }

  private:
    void put(Json row) {
        mSize += row.dump(-1, ' ', true, Json::error_handler_t::replace).size();
        mIsFull = mSize > kRowsMost;
        if (mIsFull) {
            ++mRows.lost;
        } else {
            mRows.rows.push_back(std::move(row));
        }
    }

    void merge(const Span& span) {
        if (mIsFull) {
            ++mRows.lost;
            return;
        }
        ++mMerged;
        mLast = span.name;
        mRows.rows.back()["to"] = secondsOf(span.to);
        mRows.rows.back().erase("moment");
    }

    void finishRun() {
        if (mMerged == 0) return;
        Json& name = mRows.rows.back()["name"];
        name = name.get<std::string>() + " .. " + shownText(mLast) + " (" +
               std::to_string(mMerged + 1) + " lines)";
        mMerged = 0;
    }

    const size_t mBytesOfEach;
    ReportRows mRows;
    size_t mSize = 0, mMerged = 0;
    bool mIsFull = false;
    std::string mShape, mLast;
};

}  // namespace

Json laneNames() {
    Json names = Json::array();
    for (const LaneRow& lane : kLanes) names.push_back(lane.name);
    return names;
}

Json changeOf(int64_t id, const Span& span) {
    Json row = {{"id", id},
                {"name", shownText(span.name)},
                {"from", secondsOf(span.from)},
                {"to", secondsOf(span.to)}};
    if (span.isMoment) row["moment"] = true;
    if (span.isOpen) row["open"] = true;
    if (span.isBad) row["bad"] = true;
    if (span.flow) row["flow"] = *span.flow;
    if (!span.parts.empty()) row["parts"] = span.parts;
    return row;
}

Json rowOf(int64_t id, const Span& span, const board::Event* event, size_t bytesMost) {
    Json row = changeOf(id, span);
    row["lane"] = static_cast<size_t>(span.lane);
    if (!span.line.empty()) row["line"] = shownText(span.line);
    if (event == nullptr) return row;
    row["kind"] = nameOf(event->kind);
    row["source"] = shownText(event->source);
    if (!event->bytes.empty()) row["fields"] = fieldsWithBytes(*event, bytesMost);
    return row;
}

ReportRows reportRowsOf(const std::vector<board::Event>& events) {
    size_t bytes = 0;
    for (const board::Event& event : events) bytes += event.bytes.size();
    const Timeline timeline = timelineOf(events);
    Rows rows(bytes > kBytesMost ? kBytesOfEach : bytes);
    for (size_t k = 0; k < timeline.spans.size(); ++k) {
        // What comes from several events first: there is little of it.
        const size_t i = (k + events.size()) % timeline.spans.size();
        const Span& span = timeline.spans[i];
        rows.add(static_cast<int64_t>(i), span, span.event ? &events[*span.event] : nullptr);
    }
    return rows.finish();
}

}  // namespace quil::tools
