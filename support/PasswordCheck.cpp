#include "support/PasswordCheck.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <dlfcn.h>
#include <security/pam_appl.h>

namespace
{
constexpr const char* Service = "ruvelserver"; // the policy "other" serves where none of this name stands
constexpr std::size_t LongestUser = 255;
constexpr long long CheapCheckMicroseconds = 3000; // of processor time: no real hash is computed in less
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

long long ReadUsedMicroseconds()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<long long>(used.tv_sec) * 1000000 + used.tv_nsec / 1000;
}

/**
 * The service computes a hash for an account that has one, and none for a user that does not exist or is
 * locked: many checks at a time would take visibly longer for the former. So this computes one for the
 * others, with the library that the service itself uses, and if that is not there does nothing.
 */
void SpendTimeOfAHash(const Secret& password)
{
    void* const library = dlopen("libcrypt.so.1", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return;
    using MakeSetting = char* (*)(const char*, unsigned long, const char*, int);
    using Hash = char* (*)(const char*, const char*);
    const auto makeSetting = reinterpret_cast<MakeSetting>(dlsym(library, "crypt_gensalt"));
    const auto hash = reinterpret_cast<Hash>(dlsym(library, "crypt"));
    // All defaults: as the system does for a new password.
    const char* const setting = makeSetting == nullptr ? nullptr : makeSetting(nullptr, 0, nullptr, 0);
    if (hash != nullptr && setting != nullptr)
        hash(password.Text(), setting);
    dlclose(library);
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

bool PasswordCheck::IsAccepted(std::string_view user, std::string_view password)
{
    if (IsMalformed(user, password))
        return false;
    const std::string name(user);
    Secret secret(password);
    const pam_conv conversation{Converse, &secret};
    pam_handle_t* handle = nullptr;
    const long long start = ReadUsedMicroseconds();
    int result = pam_start(Service, name.c_str(), &conversation, &handle);
    if (result != PAM_SUCCESS)
        return false;
    result = pam_set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(DoNotDelay));
    if (result == PAM_SUCCESS)
        result = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    if (result != PAM_SUCCESS && ReadUsedMicroseconds() - start < CheapCheckMicroseconds)
        SpendTimeOfAHash(secret);
    if (result == PAM_SUCCESS)
        result = pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    const bool accepted = result == PAM_SUCCESS && IsStill(handle, name) && !password.empty();
    pam_end(handle, result);
    return accepted;
}
