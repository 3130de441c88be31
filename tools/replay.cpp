#include "replay.h"

#include "list_source.h"
#include "packet.h"
#include "progress.h"

#include "ipacl/acl_kind.h"
#include "ipacl/aclapi.h"
#include "ipaclfast/aclfast.h"

#include <pcap/pcap.h>

#include <array>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <vector>

namespace ipaclctl {
namespace {

using analysis::Packet;

constexpr int kFound = 1;
constexpr int kNoAnswer = 2;

std::optional<Link> link_of(int type) {
    switch (type) {
    case DLT_EN10MB:
        return Link::kEthernet;
    case DLT_LINUX_SLL:
        return Link::kCooked;
    case DLT_LINUX_SLL2:
        return Link::kCooked2;
    case DLT_RAW:
    case DLT_IPV4:
        return Link::kRaw;
    default:
        return std::nullopt;
    }
}

// A capture file, packet by packet.
class Capture {
  public:
    explicit Capture(const std::string &file) : file_(file) {
        char wrong[PCAP_ERRBUF_SIZE] = "";
        pcap_ = pcap_open_offline(file.c_str(), wrong);
        if (!pcap_)
            throw Trouble("can't read " + file + ": " + reason(wrong));
        const auto link = link_of(pcap_datalink(pcap_));
        if (!link) {
            const char *name = pcap_datalink_val_to_name(pcap_datalink(pcap_));
            pcap_close(pcap_);
            throw Trouble("can't read " + file + ": its link type, " + (name ? name : "unknown") +
                          ", is neither Ethernet nor Linux cooked nor raw IP");
        }
        link_ = *link;
    }
    ~Capture() { pcap_close(pcap_); }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    // Reads the next frame; none at the end, or when the rest can't be read: see wrong().
    std::optional<Found> next(Packet &packet) {
        pcap_pkthdr *header;
        const u_char *data;
        const int got = pcap_next_ex(pcap_, &header, &data);
        if (got != 1) {
            if (got != PCAP_ERROR_BREAK)
                wrong_ = reason(pcap_geterr(pcap_));
            return std::nullopt;
        }
        return read_frame({data, header->caplen}, link_, packet);
    }

    // "", or why the file ends before its end.
    const std::string &wrong() const { return wrong_; }

    // In bytes; 0 where it is not known.
    size_t size() const {
        struct stat status {};
        return fstat(fileno(pcap_file(pcap_)), &status) == 0 && S_ISREG(status.st_mode)
                   ? static_cast<size_t>(status.st_size)
                   : 0;
    }
    size_t place() const {
        const off_t at = ftello(pcap_file(pcap_));
        return at < 0 ? 0 : static_cast<size_t>(at);
    }

  private:
    // The library names the file where it knows it; it is named by us.
    std::string reason(std::string text) const {
        if (text.starts_with(file_ + ": "))
            text.erase(0, file_.size() + 2);
        return text;
    }

    std::string file_, wrong_;
    pcap_t *pcap_;
    Link link_;
};

// Packets that are checked together, as the compiled form of a list takes them.
struct Batch {
    static constexpr size_t kMost = 512;

    void add(const Packet &packet, uint64_t frame) {
        packets[count] = packet.info;
        frags[count] = packet.frag;
        frames[count] = frame;
        count++;
    }
    bool full() const { return count == kMost; }
    Packet packet(size_t i) const { return {packets[i], frags[i] != 0}; }

    size_t count = 0;
    std::array<acl_info, kMost> packets{};
    std::array<uint8_t, kMost> frags{};
    std::array<uint64_t, kMost> frames{}; // counted from 1
};

using Results = std::array<uint32_t, Batch::kMost>;

// A list of this process that counts what it decides. It is compiled where its form keeps within
// the bound, and else checked rule by rule.
class Judge {
  public:
    Judge(const Configuration &from, const std::string &name, const char *slot, size_t max_bytes)
        : name_(name), list_(kept_list(from, name, slot)), form_(acl_compile(list_, max_bytes)) {
        if (acl::StandardKind::owns(*list_))
            find_counters(list_->ipacl_s);
        else
            find_counters(list_->ipacl_e);
    }

    // One result for each packet.
    void decide(const Batch &batch, Results &results) {
        if (form_)
            decide_compiled(batch, results);
        else
            for (size_t i = 0; i < batch.count; i++)
                results[i] = decide(batch.packet(i));
        for (size_t i = 0; i < batch.count; i++)
            counts_[results[i]]++;
    }

    // "guest-in: 900 permitted, 90 denied, 10 matched by no rule".
    void tell_counts() const {
        uint64_t permitted = 0, denied = 0, neither = 0;
        for (uint32_t result = 0; result <= kActions; result++)
            (result & IPACL_FLAG_PERMIT ? permitted
             : result & IPACL_FLAG_DENY ? denied
                                        : neither) += counts_[result];
        std::cout << name_ << ": " << permitted << " permitted, " << denied << " denied, "
                  << counts_[IPACL_CHECK_NO_MATCH] + counts_[IPACL_CHECK_NO_RULES]
                  << " matched by no rule";
        if (neither)
            std::cout << ", " << neither << " taken by a rule without action";
        std::cout << '\n';
    }
    // The listing with statistics, which clears the hits.
    void tell_hits() {
        std::cout << std::flush;
        show_ip_acl_rule(list_, IPACL_SHOW_PACKETS, printf);
        (void)fflush(stdout);
    }

    const std::string &name() const { return name_; }
    const ipacl &list() const { return *list_; }

  private:
    static constexpr uint32_t kActions = IPACL_FLAG_PERMIT | IPACL_FLAG_DENY | IPACL_FLAG_LOG;

    struct FreeForm {
        void operator()(acl_fast *form) const { acl_fast_free(form); }
    };

    static ipacl *kept_list(const Configuration &from, const std::string &name, const char *slot) {
        read_list(from, name, slot);
        return ipacl_config_find(slot);
    }

    template <class Rule>
    void find_counters(Rule *rule) {
        for (; rule; rule = rule->ipacl_next)
            counters_.push_back(&rule->stat_count);
    }

    void decide_compiled(const Batch &batch, Results &results) {
        std::array<acl_fast_answer, Batch::kMost> answers{};
        acl_fast_check_many(form_.get(), batch.packets.data(), batch.frags.data(), batch.count,
                            answers.data());
        for (size_t i = 0; i < batch.count; i++) {
            results[i] = answers[i].result;
            if (answers[i].rule)
                ++*counters_[answers[i].rule - 1];
        }
    }

    uint32_t decide(const Packet &packet) {
        const acl_info &info = packet.info;
        return acl::StandardKind::owns(*list_)
                   ? hit(list_->ipacl_s, ipacl_match_standard(list_->ipacl_s, &info))
                   : hit(list_->ipacl_e, ipacl_match_extended(list_->ipacl_e, &info, packet.frag));
    }

    // The result when `rule` of the list decided; its hit is counted in the record, which is ours.
    template <class Rule>
    static uint32_t hit(const Rule *head, const Rule *rule) {
        if (!rule)
            return head ? IPACL_CHECK_NO_MATCH : IPACL_CHECK_NO_RULES;
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): as said above
        const_cast<Rule *>(rule)->stat_count++;
        return rule->flags & kActions;
    }

    std::string name_;
    ipacl *list_;
    std::unique_ptr<acl_fast, FreeForm> form_;
    std::vector<uint64_t *> counters_; // of hits, rule by rule
    std::array<uint64_t, IPACL_CHECK_NO_MATCH + 1> counts_{};
};

struct Arguments {
    std::function<std::string()> running;
    std::string capture, list, against, file, against_file;
    size_t limit = 10;
    size_t memory = 64; // MiB
};

class Replay {
  public:
    Replay(Judge &judge, Judge *other, size_t limit)
        : judge_(judge), other_(other), limit_(limit) {}

    void play(Capture &capture) {
        const bool sized = capture.size() > 0;
        Progress progress(capture.size() >> 20, sized ? "MiB" : "frames");
        Packet packet;
        while (const auto found = capture.next(packet)) {
            frames_++;
            if (frames_ % 4096 == 0)
                progress.at(sized ? capture.place() >> 20 : frames_);
            if (*found == Found::kPacket)
                batch_.add(packet, frames_);
            else
                (*found == Found::kOther ? others_ : short_)++;
            if (batch_.full())
                judge(progress);
        }
        judge(progress);
    }

    void tell() {
        std::cout << counted(frames_, "frame") << ": " << counted(packets(), "IPv4 packet") << ", "
                  << others_ << " of other protocols, " << short_
                  << " with headers that are not whole\n";
        judge_.tell_counts();
        if (other_)
            other_->tell_counts();
        judge_.tell_hits();
        if (other_)
            std::cout << judge_.name() << " and " << other_->name() << " decide "
                      << counted(different_, "packet") << " differently\n";
    }

    uint64_t packets() const { return frames_ - others_ - short_; }
    bool differs() const { return different_ > 0; }

  private:
    void judge(Progress &progress) {
        Results results, others;
        judge_.decide(batch_, results);
        if (other_) {
            other_->decide(batch_, others);
            for (size_t i = 0; i < batch_.count; i++)
                if (results[i] != others[i] && different_++ < limit_)
                    show(i, progress);
        }
        batch_.count = 0;
    }

    void show(size_t i, Progress &progress) const {
        const Packet packet = batch_.packet(i);
        progress.make_way();
        std::cout << "frame " << batch_.frames[i] << ": " << analysis::packet_text(packet) << ": "
                  << verdict(judge_, packet) << ", then " << verdict(*other_, packet) << '\n';
    }

    static std::string verdict(const Judge &judge, const Packet &packet) {
        return analysis::verdict_text(analysis::decide(judge.list(), packet));
    }

    Judge &judge_;
    Judge *other_;
    size_t limit_;
    Batch batch_;
    uint64_t frames_ = 0, others_ = 0, short_ = 0, different_ = 0;
};

void tell_rate(uint64_t packets, std::chrono::duration<double> time) {
    (void)fprintf(stderr, "%s in %.2f seconds, %.0f a second\n", counted(packets, "packet").c_str(),
                  time.count(), static_cast<double>(packets) / std::max(time.count(), 1e-6));
}

int replay(const Arguments &a) {
    Capture capture(a.capture);
    const size_t max_bytes = a.memory << 20;
    Judge judge(configuration_of(a.file, a.running), a.list, a.list.c_str(), max_bytes);
    std::optional<Judge> other;
    if (!a.against.empty())
        other.emplace(configuration_of(a.against_file.empty() ? a.file : a.against_file, a.running),
                      a.against, "the other list", max_bytes); // no name in a configuration
    Replay replay(judge, other ? &*other : nullptr, a.limit);
    const auto start = std::chrono::steady_clock::now();
    replay.play(capture);
    const auto end = std::chrono::steady_clock::now();
    replay.tell();
    tell_rate(replay.packets(), end - start);
    if (!capture.wrong().empty()) {
        std::cerr << "ipaclctl: " << a.capture << " can't be read to its end: " << capture.wrong()
                  << "; the counts are of what lies before\n";
        return kNoAnswer;
    }
    return replay.differs() ? kFound : 0;
}

} // namespace

void add_replay_command(CLI::App &app, std::function<std::string()> running, LocalCommand &chosen) {
    const auto a = std::make_shared<Arguments>();
    a->running = std::move(running);
    CLI::App *sub = app.add_subcommand("replay", "put the packets of a capture to a list");
    sub->callback([&chosen, a] { chosen = [a] { return replay(*a); }; });
    sub->add_option("capture", a->capture, "a pcap file (- is standard input)")->required();
    sub->add_option("--list", a->list, "name of the list")->required();
    sub->add_option("--file", a->file,
                    "take the lists from this configuration, not from the service");
    CLI::Option *against =
        sub->add_option("--against", a->against, "another list: show what it decides differently");
    sub->add_option("--against-file", a->against_file,
                    "take the other list from this configuration")
        ->needs(against);
    sub->add_option("--limit", a->limit, "show at most so many differences");
    sub->add_option("--memory", a->memory,
                    "compile a list in at most so many MiB, or else check it rule by rule")
        ->check(CLI::Range(0, 4095))
        ->capture_default_str();
}

} // namespace ipaclctl
