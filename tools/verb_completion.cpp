#include "verb.h"

namespace {

// Verbs and options are those that the help shows at that moment, and names those of the directory file:
// nothing stands here that could grow stale. Written so that zsh runs it too.
constexpr char kFunction[] = R"sh(_vekmsg() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local verb='' file='' candidates='' i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            -D | --directory) i=$((i + 1)); file=${COMP_WORDS[i]} ;;
            -*) ;;
            *) [ -n "$verb" ] || verb=${COMP_WORDS[i]} ;;
        esac
    done
    COMPREPLY=()
    case $previous in
        -D | --directory | -f | --file | --reply) return ;;
    esac
    case $word in
        -*) candidates=$({ vekmsg --help; [ -z "$verb" ] || vekmsg "$verb" --help; } 2>/dev/null |
                sed -n 's/^  \(-[-,a-zA-Z]*\).*/\1/p' | tr , '\n') ;;
        *)
            case $verb in
                '') candidates=$(vekmsg --help | sed -n '/^Options/q; s/^  \([a-z]\{1,\}\) .*/\1/p') ;;
                ping | wait | send | call | listen | relay)
                    candidates=$(vekmsg list -q ${file:+-D "$file"} 2>/dev/null | sed -n 's/^\([^( ]*\)  .*/\1/p') ;;
                decode) candidates='message element items stream' ;;
                completion) candidates='bash zsh' ;;
            esac ;;
    esac
    while read -r i; do
        case $i in
            "$word"*) [ -z "$i" ] || COMPREPLY+=("$i") ;;
        esac
    done <<< "$(printf '%s\n' "$candidates" | tr ' ' '\n' | sort -u)"
}
)sh";

/// Writes what makes a shell complete verbs, options and names.
class CompletionVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "completion",
            "the script that lets a shell complete command lines",
            {"Prints a script for bash or zsh, which completes verbs, options and the names of",
             "the directory file, without connecting to anybody."},
            {"vekmsg completion bash >>bash_completion", "vekmsg completion zsh >_vekmsg"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override { arguments.word("SHELL", m_shell, "bash or zsh"); }

    ExitCode_ run(const CommonOptions_&, Output_& output) override {
        if (m_shell == "bash") {
            output.write(std::string("# Completes vekmsg in bash: eval \"$(vekmsg completion bash)\"\n") +
                         kFunction + "complete -o default -F _vekmsg vekmsg\n");
        } else if (m_shell == "zsh") {
            output.write(
                std::string("#compdef vekmsg\n# Completes vekmsg in zsh: eval \"$(vekmsg completion zsh)\"\n"
                            "autoload -U +X bashcompinit && bashcompinit\n") +
                kFunction + "complete -o default -F _vekmsg vekmsg\n");
        } else {
            throw Failure_(ExitCode_::Usage, "'" + m_shell + "' is no shell that is known here: bash or zsh");
        }
        return ExitCode_::Done;
    }

private:
    std::string m_shell;
};

}  // namespace

UniqueVerb_ createCompletionVerb() {
    return std::make_unique<CompletionVerb_>();
}
