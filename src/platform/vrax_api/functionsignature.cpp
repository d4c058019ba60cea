// Names taken from a compiler's function signature (__PRETTY_FUNCTION__): the scoped name for log
// lines, the enclosing scope as a translation context.
#include "vrax/dbglog.h"
#include "vrax/trstring.h"

#include <string>

namespace {

// Bounds of the name in a signature: [begin, end) ends at the parameter list's '('.
bool findFunctionName(const std::string& sig, size_t& begin, size_t& end)
{
    int angle = 0;
    size_t paren = std::string::npos;
    for (size_t i = 0; i < sig.size(); ++i) {
        const char c = sig[i];
        if (c == '<' && sig.compare(i, 8, "<lambda(") != 0)
            ++angle;
        else if (c == '>' && angle > 0)
            --angle;
        else if (c == '(' && angle == 0) {
            // "operator()" names a function whose own parameter list follows.
            if (i >= 8 && sig.compare(i - 8, 8, "operator") == 0 && i + 1 < sig.size() && sig[i + 1] == ')') {
                ++i;
                continue;
            }
            paren = i;
            break;
        }
    }
    if (paren == std::string::npos)
        return false;
    size_t start = paren;
    angle = 0;
    while (start > 0) {
        const char c = sig[start - 1];
        if (c == '>')
            ++angle;
        else if (c == '<' && angle > 0)
            --angle;
        else if (c == ' ' && angle == 0)
            break;
        --start;
    }
    // Pointer and reference return types stick to the name ("const char* f()", "T& f()").
    while (start < paren && (sig[start] == '*' || sig[start] == '&'))
        ++start;
    begin = start;
    end = paren;
    return true;
}

} // namespace

std::string dbglog_scopedFunction(const char* signature, const char* scope)
{
    const std::string sig = signature ? signature : "";
    size_t begin = 0;
    size_t end = 0;
    std::string text = findFunctionName(sig, begin, end) ? sig.substr(begin) : sig;
    const std::string prefix = std::string(scope ? scope : "") + "::";
    if (prefix.size() > 2 && text.compare(0, prefix.size(), prefix) == 0)
        text.erase(0, prefix.size());
    return text;
}

QString trExtractContext(const char* signature)
{
    const std::string sig = signature ? signature : "";
    size_t begin = 0;
    size_t end = 0;
    if (!findFunctionName(sig, begin, end))
        return QString::fromStdString(sig);
    const std::string name = sig.substr(begin, end - begin);
    const size_t scope = name.rfind("::");
    return QString::fromStdString(scope == std::string::npos ? name : name.substr(0, scope));
}
