#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/ControlProcess.h"
#include "tests/system/DaemonUnderTest.h"

// Tools that drive remote machines through a remote shell, over two daemons of this machine. Each does real
// work with ruvelsh in the place of the shell that it was written for. And the way in through OpenSSH.

using testing::EndsWith;
using testing::HasSubstr;

namespace
{
class FleetTest : public testing::Test
{
protected:
    /** Runs a script with the ports in $P and $Q, in a folder of its own: its output, its code behind it. */
    std::string Run(const std::string& script)
    {
        std::ofstream(folder_.Path() + "/script")
            << "cd " << folder_.Path() << "\nexport HOME=$PWD PATH=" << ClientFolder()
            << ":$PATH RUVEL_PASSWORD_FILE=/dev/null P=" << one_.Port() << " Q=" << other_.Port()
            << " LC_ALL=C.UTF-8\nunset RUVEL_HOST RUVEL_USER\nexec 2>&1 </dev/null\n"
            << script;
        FILE* const shell =
            popen(("setsid --wait timeout 120 sh " + folder_.Path() + "/script").c_str(), "r");
        std::string output;
        for (int byte; (byte = fgetc(shell)) != EOF;)
            output += static_cast<char>(byte);
        return output + "code " + std::to_string(WEXITSTATUS(pclose(shell)));
    }

    DaemonUnderTest one_;
    DaemonUnderTest other_;
    TestDirectory folder_;
};
} // namespace

TEST_F(FleetTest, Rsync)
{
    EXPECT_EQ(Run("set -e; mkdir -p from/sub 'to it' back\n"
                  "head -c 3000000 /dev/urandom >from/sub/big; ln -s big from/sub/link; : >'from/a | b'\n"
                  "rsync -a -e \"ruvelsh -p $P\" from/ 127.0.0.1:\"$PWD/to\\ it/\"\n"
                  "rsync -a -e \"ruvelsh -p $Q\" 127.0.0.1:\"$PWD/to\\ it/\" back/\n"
                  "diff -r from back && [ -L back/sub/link ] && echo same\n"),
              "same\ncode 0");
    // An error of the far side is told as rsync itself tells it.
    EXPECT_THAT(Run("rsync -a -e \"ruvelsh -p $P\" 127.0.0.1:$PWD/none to/\n"), EndsWith("code 23"));
}

TEST_F(FleetTest, Git)
{
    EXPECT_EQ(
        Run("set -e; export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=a "
            "GIT_COMMITTER_EMAIL=a@b\n"
            "git init -q --bare far.git\n"
            "export GIT_SSH_COMMAND=\"ruvelsh -p $P\"\n"
            "git clone -q 127.0.0.1:$PWD/far.git near 2>/dev/null\n"
            "cd near; head -c 2000000 /dev/urandom >data; git add data; git commit -q -m first\n"
            "git push -q origin HEAD:refs/heads/main; cd ..\n"
            "export GIT_SSH_COMMAND=\"ruvelsh -p $Q\"\n"
            "git clone -q -b main 127.0.0.1:$PWD/far.git second; cmp near/data second/data && echo same\n"),
        "same\ncode 0");
}

TEST_F(FleetTest, Tar)
{
    // Its remote shell is one word without arguments, so the port stands in a script.
    EXPECT_EQ(
        Run("set -e; printf '#!/bin/sh\\nexec ruvelsh -p %s \"$@\"\\n' $P >rsh; chmod +x rsh; mkdir from to\n"
            "head -c 1000000 /dev/urandom >from/data\n"
            "tar -C from -cf 127.0.0.1:$PWD/far.tar --rsh-command=$PWD/rsh .\n"
            "tar -C to -xf 127.0.0.1:$PWD/far.tar --rsh-command=$PWD/rsh\n"
            "diff -r from to && echo same\n"),
        "same\ncode 0");
}

TEST_F(FleetTest, Pdsh)
{
    const std::string output = Run("pdsh -R exec -S -w $P,$Q ruvelsh -p %h 127.0.0.1 "
                                   "'echo on $RUVELSERVER_TMP; exit 3'");
    for (const DaemonUnderTest* const daemon : {&one_, &other_})
        EXPECT_THAT(output,
                    HasSubstr(std::to_string(daemon->Port()) + ": on " + daemon->LogDirectory() + "\n"));
    EXPECT_THAT(output, EndsWith("code 3"));
}

TEST_F(FleetTest, Clush)
{
    for (const std::string worker : {"ssh", "rsh"})
        EXPECT_EQ(Run("printf '[Main]\\nssh_path: ruvelsh\\nrsh_path: ruvelsh\\ncolor: never\\n"
                      "confdir: /nonexistent\\n' >clush.conf\n"
                      "export CLUSTERSHELL_CFGDIR=$PWD; N=127.0.0.1:[$P,$Q]\n"
                      "clush -R " +
                      worker +
                      " -S -L -w $N 'echo hi; exit 4' 2>/dev/null | sed 's/^[^ ]* //'; "
                      "clush -R " +
                      worker + " -S -q -w $N 'exit 4'; echo $?"),
                  "hi\nhi\n4\ncode 0");
}

TEST_F(FleetTest, Parallel)
{
    EXPECT_EQ(Run("mkdir -p .parallel; : >.parallel/will-cite; cd .parallel; cd ..\n"
                  "printf '%s\\n' 'a b' \"it's\" '|' 4 | parallel -k --ssh ruvelsh -S "
                  "2/127.0.0.1:$P,2/127.0.0.1:$Q "
                  "'echo got {} $(basename $RUVELSERVER_TMP >/dev/null && echo there)'\n"
                  "seq 3 | parallel --ssh ruvelsh -S 127.0.0.1:$P 'exit {}' >/dev/null; echo $?\n"),
              "got a b there\ngot it's there\ngot | there\ngot 4 there\n3\ncode 0");
}

TEST_F(FleetTest, Ansible)
{
    const std::string output =
        Run("cat >hosts <<END\n[all]\none ansible_port=$P\ntwo ansible_port=$Q\n[all:vars]\n"
            "ansible_host=127.0.0.1\nansible_ssh_executable=$(command -v ruvelsh)\n"
            "ansible_ssh_transfer_method=piped\nansible_python_interpreter=/usr/bin/python3\nEND\n"
            "export ANSIBLE_NOCOLOR=1 ANSIBLE_HOME=$PWD/.ansible ANSIBLE_REMOTE_TMP=$PWD/.remote\n"
            "head -c 300000 /dev/urandom >data\n"
            "set -e; ansible -i hosts all -m raw -a 'echo raw:ok' | grep -c raw:ok\n"
            "ansible -i hosts all -m ping | grep -c pong\n"
            "ansible -i hosts all -m copy -a \"src=data dest=$PWD/copied.{{inventory_hostname}}\" >copy.log\n"
            "ansible -i hosts all -m fetch -a \"src=$PWD/copied.{{inventory_hostname}} "
            "dest=$PWD/got.{{inventory_hostname}} flat=yes\" >fetch.log\n"
            "cmp data got.one && cmp data got.two && echo same\n");
    EXPECT_EQ(output, "2\n2\nsame\ncode 0");
}

TEST_F(FleetTest, OpenSshCarriesEveryConnection)
{
    // Root's sshd would want a folder of the system's. That of nobody, through whom the connections only
    // pass, does not; but without PAM it takes that account for a locked one.
    EXPECT_EQ(
        Run("S=" + std::to_string(FindFreePort()) + R"sh(
set -e
me=$(id -un) as= pam=no
if [ "$me" = root ]; then me=nobody as='--reuid nobody --regid nogroup --clear-groups' pam=yes; fi
for name in host user; do ssh-keygen -q -t ed25519 -N '' -C '' -f $name; done
[ $me != nobody ] || chown nobody host
cat >sshd_config <<END
Port $S
ListenAddress 127.0.0.1
HostKey $PWD/host
AuthorizedKeysFile $PWD/user.pub
PidFile none
StrictModes no
UsePAM $pam
END
echo "gateway $(cat host.pub)" >known
cat >ssh_config <<END
HostName 127.0.0.1
HostKeyAlias gateway
Port $S
User $me
IdentityFile $PWD/user
UserKnownHostsFile $PWD/known
BatchMode yes
LogLevel ERROR
END
: >sshd.log
setpriv $as --pdeathsig TERM /usr/sbin/sshd -D -e -f $PWD/sshd_config 2>sshd.log & sshd=$!
trap 'while ps --ppid $sshd >ps.log; do sleep 0.05; done; kill $sshd; wait $sshd || :' EXIT
until grep -q listening sshd.log; do kill -0 $sshd || cat sshd.log; sleep 0.05; done
over() { command=$1; shift; RuvelControl $command -H 127.0.0.1:$P --proxy 'ssh -F ssh_config -W %h:%p gateway' "$@"; }
head -c 3000000 /dev/urandom >data; mkdir to
over run -- tee /dev/stderr <data >out 2>err || { head -n 3 err; cat sshd.log; }
cmp data out; cmp data err
over run -c 'exit 7' || echo $?
over put data $PWD/to/; cmp data to/data
head -c 2000000 data >.back.ruvelpart
over get $PWD/to/data back 2>&1 | sed "s|$PWD||"; cmp data back
over put --passive data $PWD/to/no || ls to
RuvelControl put -H 127.0.0.1:$P --proxy "ssh -F ssh_config -W 127.0.0.1:$P gateway" data $PWD/to/no 2>err || ls to
)sh"),
        "7\nRuvelControl: /to/data: resumed at 66 %\nRuvelControl: data: the server cannot connect to this "
        "machine through a proxy: leave out --passive\ndata\ndata\ncode 0");
}
