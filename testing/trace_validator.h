// What a viewer needs of a trace, and what it draws wrong or not at all without.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/quilctl/traces/trace_file.h"

namespace quil::tests {

class TraceValidator {
  public:
    explicit TraceValidator(const tools::TraceFile& file) : mFile(file) {}

    std::vector<std::string> problems() {
        for (const tools::TraceRecord& record : mFile.records) see(record);
        for (const auto& [track, open] : mOpen) {
            if (!open.empty()) say("a span that never ends: " + open.back().name);
        }
        for (const auto& [id, open] : mAsync) say("a span that never ends: " + open.name);
        for (const uint64_t id : mFlows) say("a flow that never ends: " + std::to_string(id));
        return std::move(mProblems);
    }

  private:
    struct Open {
        std::string name;
        int64_t from, to;
    };

    void say(const std::string& problem) { mProblems.push_back(problem); }

    void see(const tools::TraceRecord& record) {
        const auto track = mFile.tracks.find(record.track);
        if (track == mFile.tracks.end() || track->second.name.empty() ||
            track->second.process.empty()) {
            say("a track without a name: " + record.name);
        }
        if (record.took < 0) say("a negative duration: " + record.name);
        auto& open = mOpen[record.track];
        switch (record.phase) {
            case 'B':
                return open.push_back({record.name, record.at, INT64_MAX});
            case 'E':
                return end(open, record);
            case 'X':
                return nest(open, record);
            case 'b':
            case 'e':
                return async(record);
            case 's':
            case 't':
            case 'f':
                return flow(record);
            default:
                return;
        }
    }

    void end(std::vector<Open>& open, const tools::TraceRecord& record) {
        if (open.empty()) return say("an end without a beginning");
        if (record.at < open.back().from) say("a negative duration: " + open.back().name);
        open.pop_back();
    }

    // Whole spans come in the order of their beginnings, the outer one first.
    void nest(std::vector<Open>& open, const tools::TraceRecord& record) {
        const int64_t to = record.at + record.took;
        auto& last = mLastBegin[record.track];
        if (record.at < last) say("a span out of order: " + record.name);
        last = record.at;
        auto& inside = mWhole[record.track];
        while (!inside.empty() && inside.back().to <= record.at) inside.pop_back();
        if (!inside.empty() && to > inside.back().to) {
            say("bad nesting: " + record.name + " in " + inside.back().name);
        }
        if (!open.empty()) say("bad nesting: " + record.name);
        inside.push_back({record.name, record.at, to});
    }

    void async(const tools::TraceRecord& record) {
        if (record.phase == 'b') {
            if (!mAsync.try_emplace(record.id, Open{record.name, record.at, 0}).second) {
                say("a number that is in use: " + record.name);
            }
            return;
        }
        const auto begun = mAsync.find(record.id);
        if (begun == mAsync.end()) return say("an end without a beginning");
        if (record.at < begun->second.from) say("a negative duration: " + record.name);
        mAsync.erase(begun);
    }

    void flow(const tools::TraceRecord& record) {
        if (record.phase == 's') {
            mFlows.insert(record.id);
        } else if (mFlows.count(record.id) == 0) {
            say("a flow from nowhere: " + std::to_string(record.id));
        }
        if (record.phase == 'f') mFlows.erase(record.id);
    }

    const tools::TraceFile& mFile;
    std::map<uint64_t, std::vector<Open>> mOpen, mWhole;
    std::map<uint64_t, int64_t> mLastBegin;
    std::map<uint64_t, Open> mAsync;
    std::set<uint64_t> mFlows;
    std::vector<std::string> mProblems;
};

inline std::vector<std::string> problemsIn(const std::string& trace) {
    return TraceValidator(tools::readTraceFile(trace)).problems();
}

}  // namespace quil::tests
