#include "client/RemoteFile.h"

#include <charconv>
#include <cstdlib>
#include <vector>

#include "client/RemoteScript.h"

namespace
{
// The scripts' first answer: a complaint in words, or items that each end with a NUL.
constexpr std::string_view Complaint = "!";

/** $1 becomes $t, in full and with links followed; relative names begin in the home directory. */
constexpr std::string_view ResolveScript = R"sh(
say() { printf '!%s\n' "$1"; exit 0; }
t=$1
case $t in /*) ;; *) t=$PWD/$t;; esac
)sh";

/** $2 is the base name, $3 whether a part is wanted. */
constexpr std::string_view PutScript = R"sh(
case $t in */) [ -d "$t" ] || say "No such folder: $t";; esac
if [ -d "$t" ]; then t=${t%/}/$2; fi
if [ -L "$t" ]; then t=$(readlink -f -- "$t" && echo /) || say "Broken link: $1"; t=${t%??}; fi
[ -d "$t" ] && say "Is a folder: $t"
d=${t%/*}/; n=${t##*/}
[ -d "$d" ] || say "No such folder: $d"
kind=n mode=
if [ -f "$t" ]; then kind=f; mode=$(stat -c %a -- "$t")
elif [ -e "$t" ]; then kind=s; fi
p=
if [ "$3" = part ] && [ "$kind" != s ]; then
    bar=$(printf '\174')
    case $n in *"$bar"*) k=1;; *) k=; [ ${#n} -gt 200 ] && k=1;; esac
    if [ "$k" ]; then
        n=$(cksum <<END
$n
END
); n=${n%% *}
    fi
    p=$d.$n.ruvelpart
    [ -L "$p" ] && say "Is a link, which is not trusted: $p"
    if [ -e "$p" ]; then
        [ -f "$p" ] && [ -O "$p" ] && [ "$(stat -c %h -- "$p")" = 1 ] ||
            say "Does not belong to this transfer, remove it: $p"
    else
        e=$( (umask 077; set -C; : >"$p") 2>&1 ) || say "Cannot write in the folder (--in-place does without): ${e##*: }: $d"
    fi
fi
printf '%s\0%s\0\0000\0%s\0%s\0' "$kind" "$mode" "$t" "$p"
)sh";

constexpr std::string_view GetScript = R"sh(
[ -d "$t" ] && say "Is a folder (tar or rsync move those): $t"
if [ -e "$t" ]; then :; else
    e=$(LC_ALL=C stat -L -- "$t" 2>&1); say "${e##*: }: $t"
fi
kind=s
[ -f "$t" ] && kind=f
[ -r "$t" ] || say "Permission denied: $t"
printf '%s\0%s\0%s\0%s\0%s\0\0' "$kind" $(stat -L --printf '%a %.Y %s' -- "$t") "$t"
)sh";

/**
 * $1 part or empty, $2 target, $3 size, $4 mode, $5 time. Whoever owns the folder can exchange the file for a
 * link at any moment, so what is changed is what is open, once it is known to be what the name stood for.
 */
constexpr std::string_view FinishScript = R"sh(
say() { printf '!%s\n' "$1"; exit 0; }
f=${1:-$2}
command exec 9<>"$f" || say "Cannot be opened any more: $f"
o=/proc/self/fd/9 h=1
[ "$1" ] && h=%h
[ "$(stat -L -c '%d %i 1 %s' $o)" = "$(stat -c "%d %i $h" -- "$f") $3" ] || say "Was changed meanwhile: $f"
if [ "$4" ]; then e=$(chmod "$4" $o 2>&1) || say "Cannot set the mode: $e"; fi
if [ "$5" ]; then e=$(touch -d "@$5" $o 2>&1) || say "Cannot set the time: $e"; fi
if [ "$1" ]; then e=$(mv -fT -- "$1" "$2" 2>&1) || say "Cannot replace the target: $e"; fi
printf 'done\0'
)sh";

std::vector<std::string> SplitItems(std::string_view output)
{
    std::vector<std::string> items;
    for (std::size_t end; (end = output.find('\0')) != std::string_view::npos; output.remove_prefix(end + 1))
        items.emplace_back(output.substr(0, end));
    return items;
}

/** Runs a script that answers with so many items. */
Failure RunFileScript(const Server& server, std::string_view script,
                      std::initializer_list<std::string_view> words, std::size_t itemCount,
                      std::vector<std::string>& items)
{
    ScriptResult result;
    if (Failure failure = RunRemoteScript(server, script, words, result))
        return failure;
    if (result.output.starts_with(Complaint))
        return {"cannot be done at " + server.Name() + ": check the path and the permissions there",
                result.output.substr(Complaint.size(), result.output.find('\n') - Complaint.size())};
    items = SplitItems(result.output);
    if (items.size() == itemCount)
        return {};
    return {"the shell at " + server.Name() + " could not look at the file (code " +
                std::to_string(result.code) + "): GNU stat, touch and mv are needed there",
            result.output.substr(0, result.output.find('\n'))};
}

Failure ReadFile(const Server& server, const std::string& script,
                 std::initializer_list<std::string_view> words, RemoteFile& file)
{
    std::vector<std::string> items;
    if (Failure failure = RunFileScript(server, script, words, 6, items))
        return failure;
    file.kind = items[0] == "f"   ? RemoteFile::Regular
                : items[0] == "s" ? RemoteFile::Special
                                  : RemoteFile::Missing;
    file.mode = items[1];
    file.modified = items[2];
    file.size = std::strtoll(items[3].c_str(), nullptr, 10);
    file.path = items[4];
    file.partPath = items[5];
    return {};
}
} // namespace

Failure FindPutTarget(const Server& server, const std::string& target, const std::string& baseName,
                      bool wantsPart, RemoteFile& file)
{
    const std::string script = std::string(ResolveScript).append(PutScript);
    return ReadFile(server, script, {target, baseName, wantsPart ? "part" : "whole"}, file);
}

Failure FindGetSource(const Server& server, const std::string& source, RemoteFile& file)
{
    return ReadFile(server, std::string(ResolveScript).append(GetScript), {source}, file);
}

Failure FinishPut(const Server& server, const RemoteFile& file, long long size, const std::string& mode,
                  const std::string& modified)
{
    std::vector<std::string> items;
    return RunFileScript(server, FinishScript,
                         {file.partPath, file.path, std::to_string(size), mode, modified}, 1, items);
}
