#include "support/PasswordCheck.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include <dlfcn.h>
#include <security/pam_appl.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace
{
constexpr const char* Service = "ruvelserver"; // the policy "other" serves where none of this name stands
constexpr std::size_t LongestUser = 255;
constexpr long CheapCheckMicroseconds = 3000; // of processor time: no real hash is computed in less

/** The usual processor time of a check that computed a hash, in microseconds; 0 until there was one. In
 * memory that all workers share, once it has been made. */
std::atomic<long> ownExperience{0};
std::atomic<long>* experience = &ownExperience;
static_assert(std::atomic<long>::is_always_lock_free);
constexpr std::size_t LongestPassword = PAM_MAX_RESP_SIZE - 1;

/** A C string of its own for the service; wiped when it goes. */
class Secret
{
public:
    explicit Secret(std::string_view text) : text_(text) {}
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { explicit_bzero(text_.data(), text_.capacity()); }

    const char* Text() const { return text_.c_str(); }

private:
    std::string text_;
};

void FreeAnswers(pam_response* answers, int count)
{
    for (int i = 0; i < count; ++i) {
        if (answers[i].resp == nullptr)
            continue;
        explicit_bzero(answers[i].resp, strlen(answers[i].resp));
        free(answers[i].resp);
    }
    free(answers);
}

/** False when the question cannot be answered: only a hidden prompt is one for the password. */
bool Answer(const pam_message& question, const Secret& password, pam_response& answer)
{
    switch (question.msg_style) {
    case PAM_PROMPT_ECHO_OFF:
        answer.resp = strdup(password.Text());
        return answer.resp != nullptr;
    case PAM_ERROR_MSG:
    case PAM_TEXT_INFO:
        return true;
    default:
        return false;
    }
}

int Converse(int count, const pam_message** questions, pam_response** answersOut, void* data)
{
    if (count <= 0 || count > PAM_MAX_NUM_MSG)
        return PAM_CONV_ERR;
    auto* const answers =
        static_cast<pam_response*>(calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    if (answers == nullptr)
        return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i)
        if (!Answer(*questions[i], *static_cast<const Secret*>(data), answers[i])) {
            FreeAnswers(answers, count);
            return PAM_CONV_ERR;
        }
    *answersOut = answers; // the service's to wipe and free
    return PAM_SUCCESS;
}

/** Of this process and of the helpers that it has waited for. */
long ReadUsedMicroseconds()
{
    long total = 0;
    for (const int whose : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage used{};
        getrusage(whose, &used);
        total += (used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1000000L + used.ru_utime.tv_usec +
                 used.ru_stime.tv_usec;
    }
    return total;
}

/** The library with which the service itself computes hashes; does nothing where that is not there. */
class HashLibrary
{
public:
    HashLibrary() : library_(dlopen("libcrypt.so.1", RTLD_NOW | RTLD_LOCAL))
    {
        if (library_ == nullptr)
            return;
        makeSetting_ = reinterpret_cast<MakeSetting>(dlsym(library_, "crypt_gensalt"));
        hash_ = reinterpret_cast<Hash>(dlsym(library_, "crypt"));
    }
    HashLibrary(const HashLibrary&) = delete;
    HashLibrary& operator=(const HashLibrary&) = delete;
    ~HashLibrary()
    {
        if (library_ != nullptr)
            dlclose(library_);
    }

    /** One hash, all defaults, as the system makes it for a new password: its time, or 0. */
    long SpendTimeOfOne(const Secret& password) const
    {
        const long start = ReadUsedMicroseconds();
        const char* const setting = makeSetting_ == nullptr ? nullptr : makeSetting_(nullptr, 0, nullptr, 0);
        if (hash_ == nullptr || setting == nullptr)
            return 0;
        hash_(password.Text(), setting);
        return ReadUsedMicroseconds() - start;
    }

private:
    using MakeSetting = char* (*)(const char*, unsigned long, const char*, int);
    using Hash = char* (*)(const char*, const char*);

    void* library_;
    MakeSetting makeSetting_ = nullptr;
    Hash hash_ = nullptr;
};

/**
 * The service computes hashes for an account that has one, some releases two of them, and none for a user
 * that does not exist or is locked: many checks at a time would take visibly longer for the former. So this
 * computes as many for the others, by what the checks before have taken.
 */
void SpendTimeOfACheck(const Secret& password, long used)
{
    constexpr long usualNumber = 2; // where there is no experience
    const HashLibrary library;
    const long one = library.SpendTimeOfOne(password);
    if (one == 0)
        return;
    const long usual = experience->load();
    const long whole = usual == 0 ? usualNumber * one : usual;
    for (long spent = used + one; whole - spent > one / 2; spent += one)
        library.SpendTimeOfOne(password);
}

/** A check has computed a hash: what it took, or, for one that did not, what the others do. */
void EvenOut(const Secret& password, long used, bool accepted)
{
    constexpr long weight = 8; // of what was known against one check
    if (used < CheapCheckMicroseconds && !accepted)
        return SpendTimeOfACheck(password, used);
    const long usual = experience->load();
    experience->store(usual == 0 ? used : (usual * (weight - 1) + used) / weight);
}

/** In place of the service's own wait of some seconds. */
void DoNotDelay(int, unsigned int, void*) {}

/** A module may have put another user in the place of the one asked for: that one has proved nothing. */
bool IsStill(pam_handle_t* handle, const std::string& user)
{
    const void* current = nullptr;
    return pam_get_item(handle, PAM_USER, &current) == PAM_SUCCESS && current != nullptr &&
           user == static_cast<const char*>(current);
}

/** Names and passwords that no account has and that the service would misread: cut at a NUL, or, control
 * characters in a name, written into the system's log as they are. */
bool IsMalformed(std::string_view user, std::string_view password)
{
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
    return user.empty() || user.size() > LongestUser || password.size() > LongestPassword ||
           std::any_of(user.begin(), user.end(), isControl) || password.find('\0') != std::string_view::npos;
}
} // namespace

void PasswordCheck::ShareExperience()
{
    if (experience != &ownExperience)
        return;
    void* const shared =
        mmap(nullptr, sizeof(*experience), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared != MAP_FAILED)
        experience = new (shared) std::atomic<long>{0};
}

bool PasswordCheck::IsAccepted(std::string_view user, std::string_view password)
{
    if (IsMalformed(user, password))
        return false;
    const std::string name(user);
    Secret secret(password);
    const pam_conv conversation{Converse, &secret};
    pam_handle_t* handle = nullptr;
    const long start = ReadUsedMicroseconds();
    int result = pam_start(Service, name.c_str(), &conversation, &handle);
    if (result != PAM_SUCCESS)
        return false;
    result = pam_set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(DoNotDelay));
    if (result == PAM_SUCCESS)
        result = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    EvenOut(secret, ReadUsedMicroseconds() - start, result == PAM_SUCCESS);
    if (result == PAM_SUCCESS)
        result = pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    const bool accepted = result == PAM_SUCCESS && IsStill(handle, name) && !password.empty();
    pam_end(handle, result);
    return accepted;
}
