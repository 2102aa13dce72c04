#include "output/json_writer.h"
#include "timeline_view.h"

namespace Verbs {

using Model::Timeline;
using Model::TimelineBundle;
using Output::JsonWriter;

namespace {

void WriteBundle(JsonWriter& json, const TimelineBundle& bundle)
{
    json.BeginObject().Member("name", bundle.name).Member("in_chain", bundle.isInChain);
    json.Member("cost_seconds", bundle.cost).Key("requires").BeginArray();
    for (const std::string& required : bundle.required) {
        json.Value(required);
    }
    json.End().Key("states").BeginArray();
    for (const Model::TimelineState& state : bundle.states) {
        json.BeginObject().Member("state", Model::NameOf(state.state));
        json.Member("from", state.from).Member("to", state.to).End();
    }
    json.End().Key("scripts").BeginArray();
    for (const Model::TimelineScript& script : bundle.scripts) {
        json.BeginObject().Member("name", script.name).Member("from", script.from).Member("to", script.to);
        json.Member("ended", script.hasEnded).End();
    }
    json.End().Key("marks").BeginArray();
    for (const Model::TimelineMark& mark : bundle.marks) {
        json.BeginObject().Member("kind", NameOf(mark.kind)).Member("time", mark.time);
        json.Member("item", mark.item.empty() ? std::nullopt : std::optional(mark.item));
        json.Member("text", mark.text).End();
    }
    json.End().Member("omitted", bundle.omitted).End();
}

/// Events for a trace viewer. The server is a process, and each bundle is a thread of it.
class TraceWriter {
public:
    explicit TraceWriter(const Timeline& timeline) : m_timeline(timeline)
    {
        m_json.BeginObject().Member("displayTimeUnit", "ms").Key("traceEvents").BeginArray();
    }

    std::string Text()
    {
        Name("process_name", "bundle_server", 0);
        int row = 0;
        for (const TimelineBundle& bundle : m_timeline.bundles) {
            Write(bundle, ++row);
        }
        m_json.End().End();
        return m_json.Text();
    }

private:
    void Name(const char* what, const std::string& name, int row)
    {
        m_json.BeginObject().Member("ph", "M").Member("name", what).Member("pid", m_timeline.server).Member("tid", row);
        m_json.Key("args").BeginObject().Member("name", name).End().End();
    }

    void Begin(const char* phase, const std::string& name, const char* category, Model::Time time, int row)
    {
        m_json.BeginObject().Member("ph", phase).Member("name", name).Member("cat", category);
        m_json.Member("pid", m_timeline.server).Member("tid", row);
        m_json.Member("ts", (time - m_timeline.from).count());
    }

    void Write(const TimelineBundle& bundle, int row)
    {
        Name("thread_name", bundle.name, row);
        for (const Model::TimelineState& state : bundle.states) {
            Begin("X", Model::NameOf(state.state), "state", state.from, row);
            m_json.Member("dur", (state.to - state.from).count()).End();
        }
        for (const Model::TimelineScript& script : bundle.scripts) {
            Begin("X", script.name, "script", script.from, row);
            m_json.Member("dur", (script.to - script.from).count()).End();
        }
        for (const Model::TimelineMark& mark : bundle.marks) {
            Begin("i", NameOf(mark.kind) + (mark.item.empty() ? std::string() : " " + mark.item), "mark", mark.time,
                  row);
            m_json.Member("s", "t").Key("args").BeginObject().Member("text", mark.text).End().End();
        }
    }

    const Timeline& m_timeline;
    JsonWriter m_json;
};

} // namespace

std::string TimelineJson(const Timeline& timeline)
{
    JsonWriter json;
    json.BeginOutput("timeline", Model::Now());
    json.Member("server", timeline.server).Member("from", timeline.from).Member("to", timeline.to);
    json.Member("ready", timeline.ready).Key("chain").BeginArray();
    for (const std::string& name : timeline.chain) {
        json.Value(name);
    }
    json.End().Member("chain_seconds", timeline.chainCost).Key("bundles").BeginArray();
    for (const TimelineBundle& bundle : timeline.bundles) {
        WriteBundle(json, bundle);
    }
    json.End().Key("notes").BeginArray();
    for (const std::string& note : timeline.notes) {
        json.Value(note);
    }
    json.End().End();
    return json.Text();
}

std::string TimelineTrace(const Timeline& timeline)
{
    return TraceWriter(timeline).Text();
}

} // namespace Verbs
