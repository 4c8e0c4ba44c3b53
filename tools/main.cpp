// The command `vekmsg`: everything about messages that needs no program of one's own. One file for each verb.

#include <signal.h>

#include <exception>

#include "command_line.h"
#include "records.h"

namespace {

std::vector<UniqueVerb_> createVerbs() {
    std::vector<UniqueVerb_> verbs;
    for (auto* p_create :
         {createListVerb, createCheckVerb, createPingVerb, createWaitVerb, createSendVerb, createCallVerb,
          createListenVerb, createRelayVerb, createDecodeVerb, createEncodeVerb, createCompletionVerb})
        verbs.push_back(p_create());
    return verbs;
}

ExitCode_ run(int argc, char** argv) {
    const std::vector<UniqueVerb_> verbs = createVerbs();
    const Command_ command = readCommandLine(argc, argv, verbs);
    Output_ output;
    ExitCode_ result = ExitCode_::Done;
    if (command.m_p_verb == nullptr) {
        output.write(command.m_text);
    } else {
        showRecords(command.m_common.m_isQuiet, command.m_common.m_isVerbose);
        result = command.m_p_verb->run(command.m_common, output);
    }
    output.flush();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);  // so that a terminal can be closed before the command ends by it
    try {
        return static_cast<int>(run(argc, argv));
    } catch (const OutputClosed_&) {
        signal(SIGPIPE, SIG_DFL);
        raise(SIGPIPE);
    } catch (const Failure_& failure) {
        note(failure.what());
        return static_cast<int>(failure.code());
    } catch (const std::exception& exception) {
        note(exception.what());
    }
    return static_cast<int>(ExitCode_::Refused);
}
