#include "text_trace.h"

#include <cctype>
#include <charconv>
#include <stdexcept>

namespace
{

class Cursor
{
public:
    explicit Cursor(std::string_view text) : rest_(text) {}

    bool accept(std::string_view literal)
    {
        if (!rest_.starts_with(literal))
            return false;
        rest_.remove_prefix(literal.size());
        return true;
    }

    void expect(std::string_view literal)
    {
        if (!accept(literal))
            throw std::runtime_error("expected '" + std::string(literal) + "' before '" +
                                     std::string(rest_.substr(0, 60)) + "'");
    }

    std::string_view until(std::string_view literal)
    {
        const size_t at = rest_.find(literal);
        if (at == rest_.npos)
            throw std::runtime_error("no '" + std::string(literal) + "'");
        const std::string_view before = rest_.substr(0, at);
        rest_.remove_prefix(at + literal.size());
        return before;
    }

    uint64_t decimal() { return number(10); }

    uint64_t hex()
    {
        expect("0x");
        return number(16);
    }

    // The sixteen digits of a word of a longer value.
    uint64_t word()
    {
        const std::string_view digits = rest_.substr(0, 16);
        rest_.remove_prefix(digits.size());
        return Cursor(digits).number(16);
    }

    std::string_view identifier()
    {
        size_t length = 0;
        while (length < rest_.size() &&
               (std::isalnum(static_cast<unsigned char>(rest_[length])) || rest_[length] == '_'))
            ++length;
        const std::string_view name = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return name;
    }

    char peek() const { return rest_.empty() ? '\0' : rest_.front(); }
    char take()
    {
        const char c = peek();
        rest_.remove_prefix(rest_.empty() ? 0 : 1);
        return c;
    }
    bool starts_with(std::string_view literal) const { return rest_.starts_with(literal); }
    bool at_end() const { return rest_.empty(); }

private:
    std::string_view rest_;

    uint64_t number(int base)
    {
        uint64_t value = 0;
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value, base);
        if (error != std::errc())
            throw std::runtime_error("no number at '" + std::string(rest_.substr(0, 60)) + "'");
        rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
        return value;
    }
};

// Collects the labelled values of a translation section.
class Section
{
public:
    void add(std::string_view label, Cursor &at)
    {
        for (std::string_view side : {"iar_", "data_"})
            if (label.starts_with(side))
                label.remove_prefix(side.size());
        if (label == "Guest_RAs")
            return;
        if (label == "Host_RTWs_Block")
            walk_ = at.decimal() - 1;
        else if (label == "Host_RTW_Depth")
            at.decimal();
        else if (label == "HostPageSize")
            facts_.add(Fact::page_size, at.decimal());
        else if (label == "GuestPageSize")
            facts_.add(Fact::guest_page_size, at.decimal());
        else
            add_address(label, at.hex());
    }

    const Address_Facts &facts() const { return facts_; }

private:
    Address_Facts facts_;
    size_t walk_ = 0;

    void add_address(std::string_view label, uint64_t value)
    {
        if (label == "VSID")
            facts_.add(Fact::vsid, value >> 8);
        else if (label == "RPN")
            facts_.add(Fact::page_number, value);
        else if (label == "gRA")
            facts_.add(Fact::guest_ra, value);
        else if (label == "hRTPDE_L1_RA")
            facts_.add(Fact::host_l1, value, walk_);
        else if (label == "hRTPDE_L2_RA")
            facts_.add(Fact::host_l2, value, walk_);
        else if (label == "hRTPDE_L3_RA")
            facts_.add(Fact::host_l3, value, walk_);
        else if (label.find("hRTPTE_") != label.npos)
            facts_.add(Fact::host_pte, value, walk_);
        else if (label.starts_with("hRTW_host_Block"))
            facts_.add(Fact::host_ra, value, walk_);
        else if (label == "gRTPDE_L1_RA")
            facts_.add(Fact::guest_l1, value);
        else if (label == "gRTPDE_L2_RA")
            facts_.add(Fact::guest_l2, value);
        else if (label == "gRTPDE_L3_RA")
            facts_.add(Fact::guest_l3, value);
        else if (label == "gRTPTE_RA")
            facts_.add(Fact::guest_pte, value);
        else if (label != "RA")
            throw std::runtime_error("unknown item '" + std::string(label) + "'");
    }
};

// Labelled values up to a parenthesis that closes more than was opened, or up to the completion item.
Address_Facts section(Cursor &at)
{
    Section values;
    for (int depth = 0; !at.starts_with("(done)") && !at.starts_with("(undone)");) {
        const char c = at.peek();
        if (std::isalnum(static_cast<unsigned char>(c))) {
            const std::string_view label = at.identifier();
            at.expect(":");
            values.add(label, at);
            continue;
        }
        if (c == ')' && depth == 0)
            break;
        depth += c == '(' ? 1 : c == ')' ? -1 : 0;
        if (at.take() == '\0')
            throw std::runtime_error("translation without an end");
    }
    return values.facts();
}

Recorded_Registers registers(Cursor &at, std::string_view side)
{
    Recorded_Registers found;
    while (at.accept(side)) {
        if (at.decimal() != found.size())
            throw std::runtime_error("register out of order");
        at.expect("(");
        Recorded_Register r{at.take(), static_cast<int>(at.decimal()), {}};
        at.expect("):0x");
        r.word[0] = at.word();
        if (r.kind == 'v') { // the second word comes first
            r.word[1] = r.word[0];
            r.word[0] = at.word();
        }
        at.expect(") ");
        found.push_back(r);
    }
    return found;
}

void parse_head(Cursor &at, Text_Line &line)
{
    at.expect("(seq:");
    line.seq = at.decimal();
    at.expect(",tid:");
    line.tid = static_cast<int>(at.decimal());
    at.expect(") (xlatetype_I:");
    line.instruction_mode = at.until(") (xlatetype_D:");
    line.data_mode = at.until(") (pid:");
    at.until("(instbody:");
    line.word = static_cast<uint32_t>(at.hex());
    at.expect(") {name:");
    line.name = at.until("} (I:");
    line.i = static_cast<unsigned>(at.decimal());
    at.expect(") (N:");
    line.n = static_cast<unsigned>(at.decimal());
    at.expect(") (T:");
    line.t = static_cast<unsigned>(at.decimal());
    at.expect(") (PC:");
    line.address = at.hex();
    at.expect(") (nextPC:");
    line.next_address = at.hex();
    at.expect(") ");
    if (at.accept("(nn:")) {
        line.node = static_cast<unsigned>(at.decimal());
        at.expect(") ");
    }
}

void parse_tail(Cursor &at, Text_Line &line)
{
    if (at.accept("(len:")) {
        line.length = static_cast<unsigned>(at.decimal());
        at.expect(") ");
    }
    line.in = registers(at, "(Input Reg ");
    line.out = registers(at, "(Output Reg ");
    if (at.accept("(left:"))
        at.until(") ");
    if (!at.at_end())
        throw std::runtime_error("more than the line's items");
}

} // namespace

Text_Line parse_text_line(std::string_view text)
{
    Text_Line line;
    Cursor at(text);
    parse_head(at, line);
    if (!at.starts_with("(done)") && !at.starts_with("(undone)"))
        line.instruction_translation = section(at);
    at.expect("(done) ");
    if (at.accept("(branch "))
        line.branch = at.until(") ");
    if (at.accept("(DEA:")) {
        line.data_address = at.hex();
        line.data_translation = section(at);
        at.expect(") ");
    }
    parse_tail(at, line);
    return line;
}

std::optional<Text_Entry> Text_Trace::next()
{
    Text_Entry entry;
    for (std::string line; std::getline(in_, line);) {
        if (line == "*** FILE HEADER INSERTED *** ") {
            std::getline(in_, line);
            entry.comment = line;
        } else if (line.starts_with("Partition Change: ")) {
            entry.partition_change = line;
        } else {
            entry.line = parse_text_line(line);
            return entry;
        }
    }
    return std::nullopt;
}
