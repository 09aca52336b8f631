// Positional arguments of a command as values and declarations of the session.
#include "session.h"

namespace oxcli {

void declareArguments(Session& s, const std::vector<std::string>& args, size_t first,
                      bool bareNamesAllowed)
{
    for (size_t i = first; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg.find('=') == std::string::npos) {
            if (!bareNamesAllowed)
                usage("argument " + quoted(arg) + " must have the form name=value");
            s.declare(checkedName(arg, arg));
            continue;
        }
        auto pair = splitAssignment(arg, "argument");
        s.setValue(pair.first, checkedNumber(pair.second, arg), arg);
    }
}

}  // namespace oxcli
