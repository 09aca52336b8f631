// oxel table: a formula evaluated on a grid of ranges or on CSV rows, written as CSV.
#include "common.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "number_text.h"
#include "session.h"

namespace oxcli {
namespace {

// More points than this in one table is almost certainly a typo in a range.
const double kMaxTablePoints = 10e6;
// Derivative columns of one table at most (--grad).
const size_t kMaxGrad = 64;

struct Range {
    std::string name;
    double start = 0, step = 1;
    long points = 1;
};

Range parseRange(const std::string& name, const std::string& bounds, const std::string& arg)
{
    std::vector<std::string> parts = splitFields(bounds, ':');
    if (parts.size() < 2 || parts.size() > 3)
        usage("range " + quoted(arg) + " must be name=start:stop or name=start:stop:step");
    Range r;
    r.name = name;
    r.start = checkedNumber(parts[0], arg);
    double stop = checkedNumber(parts[1], arg);
    if (parts.size() == 3)
        r.step = checkedNumber(parts[2], arg);
    if (!std::isfinite(r.start) || !std::isfinite(stop) || !std::isfinite(r.step))
        usage("range " + quoted(arg) + " needs finite numbers");
    if (r.step == 0)
        usage("range " + quoted(arg) + " has step 0");
    double span = (stop - r.start) / r.step;
    if (span < 0)
        usage("range " + quoted(arg) + " never reaches its stop: the step has the wrong sign");
    // A small allowance so that 0:1:0.1 ends at 1 despite rounding in the division.
    span = std::floor(span + 1e-9);
    if (!(span + 1 <= kMaxTablePoints))
        usage("range " + quoted(arg) + " has more than 10000000 points");
    r.points = static_cast<long>(span) + 1;
    return r;
}

// Standard output through one large buffer.
class Output {
public:
    Output() : buf_(kSize + kSlack) {}
    ~Output() { flush(); }

    void append(const char* p, size_t n)
    {
        if (n_ + n > kSize)
            flush();
        if (n > kSize) {
            writeOut(p, n);
            return;
        }
        std::memcpy(&buf_[n_], p, n);
        n_ += n;
    }
    void append(const std::string& s) { append(s.data(), s.size()); }

    // n value and error columns closing a row; the slack leaves room for them.
    void endRow(const double* values, const int* errors, size_t n)
    {
        char* p = &buf_[n_];
        for (size_t k = 0; k < n; ++k) {
            *p++ = ',';
            p += numtext::format(values[k], p);
            *p++ = ',';
            p = std::to_chars(p, p + 16, errors[k]).ptr;
        }
        *p++ = '\n';
        n_ = static_cast<size_t>(p - buf_.data());
        if (n_ > kSize)
            flush();
    }

    void flush()
    {
        // A failed write stops the table at once; nothing more is written (the destructor).
        size_t n = n_;
        n_ = 0;
        writeOut(buf_.data(), n);
    }

private:
    static const size_t kSize = size_t(1) << 20, kSlack = 64 * (kMaxGrad + 1);
    std::vector<char> buf_;
    size_t n_ = 0;
};

// Table rows collected a block at a time and evaluated with evalBatch, which gives what eval
// would give row by row (with derivatives: OxelGradient, which gives the same). Each row is
// written as its leading text (the range values, or the CSV line as it came) followed by the
// value and the error code, then each derivative and its code.
class Block {
public:
    Block(Session& s, const OxelGradient* grad)
        : expr_(s.expression()), grad_(grad), base_(s.baseRow()), stride_(base_.size()),
          // Formulas with thousands of assigned names get shorter blocks (at most 8 MB of values).
          cap_(std::max<size_t>(1, std::min<size_t>(4096, (size_t(1) << 20) / std::max<size_t>(1, stride_)))),
          rows_(std::max<size_t>(1, cap_ * stride_)), results_(cap_), errors_(cap_), ends_(cap_)
    {
    }

    // A new row: the base values, to be filled in by the caller.
    double* add(const char* lead, size_t n)
    {
        double* row = &rows_[n_ * stride_];
        std::copy(base_.begin(), base_.end(), row);
        text_.append(lead, n);
        ends_[n_++] = text_.size();
        return row;
    }

    void dropLast()
    {
        --n_;
        text_.resize(n_ ? ends_[n_ - 1] : 0);
    }

    bool full() const { return n_ == cap_; }

    void flush(Output& out)
    {
        if (n_ == 0)
            return;
        if (grad_) {
            flushGradient(out);
            return;
        }
        std::fill(errors_.begin(), errors_.begin() + static_cast<long>(n_), 0);
        if (expr_.evalBatch(rows_.data(), static_cast<int>(n_), static_cast<int>(stride_),
                            results_.data(), errors_.data()) != 0)
            throw std::logic_error("evalBatch rejected the table rows");
        size_t from = 0;
        for (size_t r = 0; r < n_; ++r) {
            out.append(text_.data() + from, ends_[r] - from);
            out.endRow(&results_[r], &errors_[r], 1);
            from = ends_[r];
        }
        n_ = 0;
        text_.clear();
    }

private:
    // The rows as one column per variable through the gradient, written output by output.
    void flushGradient(Output& out)
    {
        const size_t outputs = static_cast<size_t>(grad_->numOutputs());
        std::vector<std::vector<double>> cols(stride_, std::vector<double>(n_));
        std::vector<const double*> colp;
        for (size_t v = 0; v < stride_; ++v) {
            for (size_t r = 0; r < n_; ++r)
                cols[v][r] = rows_[r * stride_ + v];
            colp.push_back(cols[v].data());
        }
        std::vector<double> values(outputs * n_);
        std::vector<int> codes(outputs * n_);
        std::vector<double*> valuep;
        std::vector<int*> codep;
        for (size_t k = 0; k < outputs; ++k) {
            valuep.push_back(&values[k * n_]);
            codep.push_back(&codes[k * n_]);
        }
        if (grad_->evalBatchColumns(colp.data(), static_cast<int>(n_), valuep.data(),
                                    codep.data()) != 0)
            throw std::logic_error("the gradient rejected the table rows");
        std::vector<double> rowValues(outputs);
        std::vector<int> rowCodes(outputs);
        size_t from = 0;
        for (size_t r = 0; r < n_; ++r) {
            for (size_t k = 0; k < outputs; ++k) {
                rowValues[k] = values[k * n_ + r];
                rowCodes[k] = codes[k * n_ + r];
            }
            out.append(text_.data() + from, ends_[r] - from);
            out.endRow(rowValues.data(), rowCodes.data(), outputs);
            from = ends_[r];
        }
        n_ = 0;
        text_.clear();
    }

    OxelExpression& expr_;
    const OxelGradient* grad_;
    std::vector<double> base_;
    size_t stride_, cap_;
    std::vector<double> rows_, results_;
    std::vector<int> errors_;
    std::vector<size_t> ends_;
    std::string text_;
    size_t n_ = 0;
};

// The header's value columns: value and error, then each derivative and its error code.
std::string valueColumns(const std::vector<std::string>& grad)
{
    std::string header = "value,error";
    for (const std::string& label : gradientLabels(grad, 1))
        if (label != "value")
            header += "," + label + "," + label + " error";
    return header + "\n";
}

int runGridTable(Session& s, const std::vector<Range>& ranges, const std::vector<int>& slots,
                 const std::vector<std::string>& gradNames, const OxelGradient* grad)
{
    Output out;
    for (const Range& r : ranges)
        out.append(r.name + ",");
    out.append(valueColumns(gradNames));

    // Odometer over the ranges, the last one turning fastest.
    Block block(s, grad);
    std::vector<long> at(ranges.size(), 0);
    std::vector<double> columns(ranges.size());
    std::string lead;
    for (;;) {
        lead.clear();
        // start + i*step rather than repeated addition, so the error does not accumulate.
        for (size_t k = 0; k < ranges.size(); ++k) {
            columns[k] = ranges[k].start + static_cast<double>(at[k]) * ranges[k].step;
            lead += (k ? "," : "") + formatNumber(columns[k]);
        }
        double* row = block.add(lead.data(), lead.size());
        for (size_t k = 0; k < ranges.size(); ++k)
            row[slots[k]] = columns[k];
        if (block.full())
            block.flush(out);
        size_t k = ranges.size();
        while (k > 0 && ++at[k - 1] == ranges[k - 1].points)
            at[--k] = 0;
        if (k == 0) {
            block.flush(out);
            return kOk;
        }
    }
}

// Standard input in large blocks, cut into lines without their line feeds.
class LineReader {
public:
    LineReader() : buf_(size_t(1) << 20) {}

    // The next line; it stays valid until the next call.
    bool next(const char*& line, size_t& length)
    {
        for (;;) {
            const char* start = buf_.data() + begin_;
            if (const void* nl = std::memchr(start, '\n', end_ - begin_)) {
                line = start;
                length = static_cast<size_t>(static_cast<const char*>(nl) - start);
                begin_ += length + 1;
                return true;
            }
            if (eof_) {
                if (begin_ == end_)
                    return false;
                line = start;
                length = end_ - begin_;
                begin_ = end_;
                return true;
            }
            std::memmove(buf_.data(), start, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
            if (end_ == buf_.size())  // one line longer than the buffer
                buf_.resize(buf_.size() * 2);
            ssize_t n = ::read(0, buf_.data() + end_, buf_.size() - end_);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                eof_ = true;
            else
                end_ += static_cast<size_t>(n);
        }
    }

private:
    std::vector<char> buf_;
    size_t begin_ = 0, end_ = 0;
    bool eof_ = false;
};

bool isBlank(const char* p, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        if (p[i] != ' ' && p[i] != '\t' && p[i] != '\r')
            return false;
    return true;
}

// One CSV field as a number: blanks around it are allowed.
NumberStatus fieldNumber(const char* begin, const char* end, double& out, std::string& field)
{
    while (begin < end && (*begin == ' ' || *begin == '\t' || *begin == '\r'))
        ++begin;
    while (end > begin && (end[-1] == ' ' || end[-1] == '\t' || end[-1] == '\r'))
        --end;
    auto fast = std::from_chars(begin, end, out);
    if (fast.ec == std::errc() && fast.ptr == end && begin < end)
        return kNumber;
    field.assign(begin, end);
    return parseNumber(field, out);
}

// The derivatives that --grad asks for, or null without it; false when they cannot be formed.
bool tableGradient(Session& s, const std::vector<std::string>& names,
                   std::unique_ptr<OxelGradient>& grad)
{
    if (names.empty())
        return true;
    std::string why;
    grad = s.expression().gradient(names, 1, &why);
    if (!grad)
        std::fprintf(stderr, "oxel: the derivatives cannot be formed: %s\n", why.c_str());
    return grad != nullptr;
}

int runCsvTable(Session& s, const std::string& formula, const std::vector<std::string>& names,
                const std::string& headerLine, LineReader& in,
                const std::vector<std::string>& gradNames)
{
    std::vector<int> slots;
    for (const std::string& n : names) {
        int index = s.declare(n);
        for (int seen : slots)
            if (seen == index)
                usage("CSV header names variable " + quoted(n) + " twice");
        if (s.hasValue(index))
            usage("variable " + quoted(n) + " is both a CSV column and an argument");
        slots.push_back(index);
    }
    for (int slot : slots)
        s.markGiven(slot);
    s.requireAllValues();
    s.requireValuesFor(formula);
    if (!s.parse(formula))
        return kParse;
    std::unique_ptr<OxelGradient> grad;
    if (!tableGradient(s, gradNames, grad))
        return kNoDerivative;

    Output out;
    out.append(headerLine);
    out.append("," + valueColumns(gradNames));
    Block block(s, grad.get());
    const char* line;
    size_t length;
    std::string field;
    for (long lineNo = 2; in.next(line, length); ++lineNo) {
        if (length > 0 && line[length - 1] == '\r')
            --length;
        if (isBlank(line, length))
            continue;
        const char* end = line + length;
        size_t fields = 1;
        for (const char* p = line; (p = static_cast<const char*>(std::memchr(p, ',', end - p))); ++p)
            ++fields;
        std::string problem;
        if (const void* nul = std::memchr(line, '\0', length))
            problem = ": a NUL byte at offset " +
                      std::to_string(static_cast<const char*>(nul) - line);
        else if (fields != names.size())
            problem = " has " + std::to_string(fields) + " fields, the header has " +
                      std::to_string(names.size());
        double* row = block.add(line, length);
        const char* p = line;
        for (size_t k = 0; problem.empty() && k < fields; ++k) {
            const char* comma = static_cast<const char*>(std::memchr(p, ',', end - p));
            if (!comma)
                comma = end;
            NumberStatus status = fieldNumber(p, comma, row[slots[k]], field);
            if (status != kNumber)
                problem = ": " + quoted(field) + " " + numberProblem(status);
            p = comma + 1;
        }
        if (!problem.empty()) {
            // The rows before the bad one are still written.
            block.dropLast();
            block.flush(out);
            out.flush();
            usage("CSV line " + std::to_string(lineNo) + problem);
        }
        if (block.full())
            block.flush(out);
    }
    block.flush(out);
    return kOk;
}

}  // namespace

int runTable(const Args& a)
{
    rejectOptions(a, kCsv | kGrad);
    if (a.grad.size() > kMaxGrad)
        usage("--grad names more than 64 variables");
    Formula f = formulaOf(a);
    Session s(a);
    std::vector<Range> ranges;
    std::vector<int> slots;
    double points = 1;
    for (size_t i = f.firstArg; i < a.positional.size(); ++i) {
        const std::string& arg = a.positional[i];
        auto pair = splitAssignment(arg, "argument");
        if (pair.second.find(':') == std::string::npos) {
            s.setValue(pair.first, checkedNumber(pair.second, arg), arg);
            continue;
        }
        if (a.csv)
            usage("ranges cannot be combined with --csv");
        Range r = parseRange(pair.first, pair.second, arg);
        points *= static_cast<double>(r.points);
        if (points > kMaxTablePoints)
            usage("the ranges together have more than 10000000 points");
        // Mark the variable as given so that duplicates and missing values are caught alike.
        s.setValue(r.name, 0.0, arg);
        slots.push_back(s.declare(r.name));
        ranges.push_back(r);
    }

    for (const std::string& n : a.grad)  // each needs a value like any variable
        s.declare(n);
    if (a.csv) {
        LineReader in;
        const char* line;
        size_t length;
        std::string header;
        if (in.next(line, length))
            header.assign(line, length);
        if (!header.empty() && header.back() == '\r')
            header.pop_back();
        // The byte-order mark that some editors write first belongs to no name; it is dropped.
        if (header.compare(0, 3, "\xEF\xBB\xBF") == 0)
            header.erase(0, 3);
        size_t nul = header.find('\0');
        if (nul != std::string::npos)
            usage("CSV header: a NUL byte at offset " + std::to_string(nul));
        if (trim(header).empty())
            usage("--csv expects a header line naming the variables on standard input");
        std::vector<std::string> names = splitFields(header, ',');
        for (const std::string& n : names)
            checkedName(n, header);
        return runCsvTable(s, f.text, names, header, in, a.grad);
    }
    if (ranges.empty())
        usage("table needs a range name=start:stop[:step] or --csv");
    s.requireAllValues();
    s.requireValuesFor(f.text);
    if (!s.parse(f.text))
        return kParse;
    std::unique_ptr<OxelGradient> grad;
    if (!tableGradient(s, a.grad, grad))
        return kNoDerivative;
    return runGridTable(s, ranges, slots, a.grad, grad.get());
}

}  // namespace oxcli
