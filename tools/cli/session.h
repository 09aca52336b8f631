// The variable registry as the command line fills it, and the arguments that fill it.
#ifndef OXEL_CLI_SESSION_H
#define OXEL_CLI_SESSION_H

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common.h"

namespace oxcli {

// The variable registry as the command line fills it: values by variable index.
class Session {
public:
    explicit Session(const Args& args)
    {
        // An alias is only useful with its variable declared, so declare that first.
        for (const auto& alias : args.aliases) {
            expr_.addVar(alias.second.c_str());
            expr_.addVarAlias(alias.second.c_str(), alias.first.c_str());
        }
        for (const std::string& name : args.vars)
            declare(name);
    }

    int declare(const std::string& name)
    {
        int index = expr_.addVar(name.c_str());
        if (index >= static_cast<int>(given_.size())) {
            given_.resize(index + 1, false);
            values_.resize(index + 1, 0.0);
        }
        return index;
    }

    void setValue(const std::string& name, double v, const std::string& arg)
    {
        int index = declare(name);
        if (given_[index])
            usage("variable " + quoted(name) + " is given more than once (" + quoted(arg) + ")");
        given_[index] = true;
        values_[index] = v;
    }

    // A variable whose values come from elsewhere (a CSV column).
    void markGiven(int index) { given_[index] = true; }

    bool hasValue(int index) const
    {
        return index >= 0 && index < static_cast<int>(given_.size()) && given_[index];
    }

    // Every declared variable must have a value before evaluating.
    void requireAllValues()
    {
        int declared = expr_.numVars() - expr_.numInternalVars();
        for (int i = 0; i < declared; ++i)
            if (!hasValue(i))
                usage("no value for variable " + quoted(expr_.varName(i)));
    }

    // The same, except for those of names that the formula does not read.
    void requireAllValuesBut(const std::vector<std::string>& names, const std::string& formula)
    {
        KxDArray<KxString> read;
        oxelFormulaNames(formula.c_str(), read);
        auto exempt = [&](const char* var) {
            bool named = false, isRead = false;
            for (const std::string& n : names)
                named = named || expr_.varIndex(n.c_str()) == expr_.varIndex(var);
            for (int i = 0; i < read.length(); ++i)
                isRead = isRead || expr_.varIndex(read[i].c_str()) == expr_.varIndex(var);
            return named && !isRead;
        };
        int declared = expr_.numVars() - expr_.numInternalVars();
        for (int i = 0; i < declared; ++i)
            if (!hasValue(i) && !exempt(expr_.varName(i)))
                usage(std::string("no value for variable '") + expr_.varName(i) + "'");
    }

    // So does every name the formula reads before assigning it.
    void requireValuesFor(const std::string& formula)
    {
        // A name called like a function is not a variable; parse() says so.
        std::string called;
        if (unknownCall(formula, called) >= 0)
            return;
        KxDArray<KxString> names;
        KxDArray<int> assigned;
        oxelFormulaNames(formula.c_str(), names, &assigned);
        for (int i = 0; i < names.length(); ++i)
            if (!assigned[i] && !hasValue(expr_.varIndex(names[i].c_str())))
                usage("no value for variable " + quoted(names[i].c_str()));
    }

    // Declares every name of the formula, for commands that need no values.
    void declareNamesOf(const std::string& formula)
    {
        KxDArray<KxString> names;
        oxelFormulaNames(formula.c_str(), names);
        for (int i = 0; i < names.length(); ++i)
            declare(names[i].c_str());
    }

    // Parses the formula; on failure shows where it stopped below the parser's own message
    // (already written by the message handler) and returns false.
    bool parse(const std::string& formula)
    {
        std::string called;
        int at = unknownCall(formula, called);
        if (at >= 0) {
            showWhere(formula, at);
            std::fprintf(stderr, "oxel: unknown function %s\n", quoted(called).c_str());
            // A function the language spells otherwise (log) or reserves (gamma) says so.
            KxDArray<KxString> self;
            self.append(KxString(called.c_str()));
            KxString hint = oxelParseHint((called + "()").c_str(), "", self);
            if (hint.length())
                std::fprintf(stderr, "oxel: hint: %s\n", hint.c_str());
            return false;
        }
        if (expr_.initFromString(formula.c_str()))
            return true;
        showWhere(formula, expr_.lastErrorOffset());
        std::fprintf(stderr, "oxel: the formula does not parse\n");
        if (*expr_.lastErrorHint())
            std::fprintf(stderr, "oxel: hint: %s\n", expr_.lastErrorHint());
        // A lone unknown name parses as the start of an assignment.
        if (std::strstr(expr_.lastError(), "expecting '='"))
            std::fprintf(stderr, "oxel: hint: declare every variable of the formula "
                                 "(name=value, or a bare name where values are not needed)\n");
        return false;
    }

    // Values for one evaluation of the parsed formula: the given values, 0 elsewhere.
    // Internal (assigned) slots start from 0 for every row so that rows are independent.
    std::vector<double> baseRow()
    {
        std::vector<double> row(expr_.numVars(), 0.0);
        for (size_t i = 0; i < row.size() && i < values_.size(); ++i)
            row[i] = values_[i];
        return row;
    }

    double eval(int& err)
    {
        std::vector<double> row = baseRow();
        err = 0;
        return expr_.eval(row.data(), static_cast<int>(row.size()), err);
    }

    OxelExpression& expression() { return expr_; }

private:
    OxelExpression expr_;
    std::vector<bool> given_;
    std::vector<double> values_;
};

// Positional arguments behind the formula: name=value, or a bare name where allowed.
void declareArguments(Session& s, const std::vector<std::string>& args, size_t first,
                      bool bareNamesAllowed);

}  // namespace oxcli

#endif
