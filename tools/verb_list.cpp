#include <nlohmann/json.hpp>

#include "json_text.h"
#include "probe.h"
#include "verb.h"

namespace {

using Entry_ = DirectoryFile_::Entry_;

/// The entries of the directory file, in its order.
class ListVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "list",
            "the components of the directory, and whether they answer",
            {"Shows the entries of the directory file: name, address, and which of several",
             "default addresses is the one in use. An address that is wrong is for `check`.",
             "With --probe the exit code is 4 when an address cannot be reached, and 5 when",
             "nobody answers there in time."},
            {"vekmsg list -D shop.directory", "vekmsg list -D shop.directory --probe --json"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        arguments.flag("--probe", m_isProbing, "ping at each address (--timeout each, 1 s)");
    }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        const DirectoryFile_ directory(common.directory());
        Table_ table;
        for (const Entry_& entry : directory.entries()) {
            if (common.m_json != JsonStyle_::None) output.follow();  // a probe takes its time
            const Probe_ probed = m_isProbing ? probe(entry, common.timeout(kProbePatience)) : Probe_{};
            if (m_isProbing) remember(probed);
            if (common.m_json != JsonStyle_::None) {
                output.write(jsonText(json(entry, probed), common.m_json));
            } else if (m_isProbing) {
                table.add({nameOf(entry), printableText(entry.m_address),
                           output.coloured(colourOf(probed), textOf(probed))});
            } else {
                table.add({nameOf(entry), printableText(entry.m_address)});
            }
            m_hasDefault = m_hasDefault || entry.m_name.empty();
        }
        table.writeTo(output);
        if (!directory.records().empty() && !common.m_isQuiet)
            note(counted(directory.records().size(), "record") + " about " + common.directory() +
                 ": see vekmsg check");
        return m_result;
    }

private:
    /// The default address in use is the first one.
    std::string nameOf(const Entry_& entry) const {
        return entry.m_name.empty() && m_hasDefault ? "(default, not used)" : nameText(entry);
    }

    Json_ json(const Entry_& entry, const Probe_& probed) const {
        Json_ json = jsonOf(entry);
        if (entry.m_name.empty()) json["isUsedDefault"] = !m_hasDefault;
        if (m_isProbing) putInto(json, probed);
        return json;
    }

    void remember(const Probe_& probed) {
        if (!isFault(probed)) return;
        const bool isSilent = probed.m_state == Probe_::NoAnswer;
        if (m_result != ExitCode_::NotReachable)
            m_result = isSilent ? ExitCode_::TimedOut : ExitCode_::NotReachable;
    }

    bool m_isProbing = false;
    bool m_hasDefault = false;
    ExitCode_ m_result = ExitCode_::Done;
};

}  // namespace

UniqueVerb_ createListVerb() {
    return std::make_unique<ListVerb_>();
}
