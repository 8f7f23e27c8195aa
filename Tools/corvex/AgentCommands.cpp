#include <chrono>

#include "CorvexKit/AgentEntry.h"
#include "CorvexKit/AgentNotice.h"
#include "CorvexKit/CorvexdBackend.h"
#include "Tools/corvex/Commands.h"

namespace corvex::cli {

namespace {

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

std::string workspaceName(const ModelState& state, uint64_t pane) {
    auto where = state.location(pane);
    return where && where->workspace ? where->workspace->name : std::string();
}

// One agent a line, those that need the user first: machine, workspace, tab, state, for how
// long, message.
void printAgents(const std::vector<AgentEntry>& entries, const ModelState& state, Streams& io) {
    for (const auto& entry : entries) {
        const auto& info = entry.info;
        std::string since;
        if (info.since) since = AgentNotice::duration(now() - *info.since).value_or("now");
        std::string message = info.message.value_or(info.prompt.value_or(""));
        io.out << entry.machineName << "\t" << workspaceName(state, entry.pane) << "\t" << entry.tabTitle.value_or("")
               << "\t" << shownState(info).label << "\t" << since << "\t" << AgentNotice::clip(message, 120) << "\n";
    }
}

} // namespace

CommandRun parseAgents(Arguments& args) {
    args.finish();
    return [](CorvexdBackend& backend, Streams& io) {
        auto state = backend.getState();
        auto hello = backend.lastHello();
        std::string machine = hello && hello->machine ? hello->machine->hostname : "this computer";
        FeatureSet features = hello ? hello->features() : FeatureSet{};
        auto entries = agentEntries("local", machine, state, features,
                                    [](const Tab& tab) { return tab.title.value_or(""); });
        printAgents(AgentEntry::sorted(std::move(entries)), state, io);
        return 0;
    };
}

CommandRun parseDecide(Arguments& args) {
    auto message = args.option("--message");
    uint64_t pane = parseID(args.positional("pane"), "pane");
    auto word = args.positional("decision");
    args.finish();
    auto decision = parsePermissionDecision(word);
    if (!decision) throw UsageError("bad decision: " + word + " (allow or deny)");
    return [=](CorvexdBackend& backend, Streams&) {
        // The pane's first open request: the one its agent is waiting on.
        auto state = backend.getState();
        const Pane* found = nullptr;
        for (const auto& each : state.panes) {
            if (each.id == pane) found = &each;
        }
        if (!found) throw BackendError("not_found", "no pane " + std::to_string(pane));
        if (!found->agent || !found->agent->requests || found->agent->requests->empty()) {
            throw BackendError("not_found", "the agent in pane " + std::to_string(pane) + " asks nothing");
        }
        backend.decide(pane, found->agent->requests->front().id, *decision, message);
        return 0;
    };
}

} // namespace corvex::cli
