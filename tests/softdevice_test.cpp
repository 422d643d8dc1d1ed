// Drives the built softdevice program as a user does, in a shell, with the openssl command line as
// the independent judge of what it writes; and on a pseudo-terminal where it asks for a PIN.
#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

using Words = std::vector<std::string>;

struct Answer {
  int status;        // exit status, or 128 and the signal
  std::string said;  // standard output and standard error
};

struct Step {
  const char* line;
  int status;
  const char* says;  // part of the output
};

static std::string Content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

// Every test starts in a scratch folder with the PIN in "pin", a message in "msg", and an empty
// device in the key folder "keys".
class Softdevice : public testing::Test {
 protected:
  fs::path scratch;
  fs::path before;

  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "softdevice.XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    scratch = name;
    before = fs::current_path();
    fs::current_path(scratch);
    static const std::string path = std::string(SOFTDEVICE_DIR) + ":" + getenv("PATH");
    setenv("PATH", path.c_str(), 1);
    std::ofstream("pin") << "right pin\n";
    std::ofstream("wrong") << "wrong pin\n";
    std::ofstream("msg") << "the message\n";
    Good("softdevice create --folder keys --label Demo --serial 0001");
  }

  void TearDown() override {
    fs::current_path(before);
    fs::remove_all(scratch);
  }

  static Answer Run(const std::string& line) {
    const int status = system(("{ " + line + "\n} >.said 2>&1 </dev/null").c_str());
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {code, Content(".said")};
  }

  static std::string Good(const std::string& line) {
    const Answer answer = Run(line);
    EXPECT_EQ(answer.status, 0) << line << "\n" << answer.said;
    return answer.said;
  }

  static void Walk(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      const Answer answer = Run(step.line);
      EXPECT_EQ(answer.status, step.status) << step.line << "\n" << answer.said;
      EXPECT_NE(answer.said.find(step.says), std::string::npos) << step.line << "\n" << answer.said;
    }
  }

  static void Generate(const std::string& algorithm) {
    Good("softdevice keygen " + algorithm + " --folder keys --pin-file pin");
  }
};

static const char* const IDENTITY = "1234567812345678";

TEST_F(Softdevice, SignaturesAreAcceptedByOpenssl) {
  struct Row {
    std::string name, check;
  };
  const Row rows[] = {
      {"rsa-1024", "openssl dgst -sha256 -verify pub -signature sig msg"},
      {"rsa-2048", "openssl dgst -sha256 -verify pub -signature sig msg"},
      {"p-256", "openssl dgst -sha256 -verify pub -signature sig msg"},
      {"sm2",
       "openssl pkeyutl -verify -pubin -inkey pub -rawin -digest sm3 -in msg -sigfile sig "
       "-pkeyopt distid:" +
           std::string(IDENTITY)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Generate(row.name);
    const std::string key = " --folder keys --keypair " + row.name;
    Good("softdevice public-key -o pub" + key);
    Good("softdevice sign msg -o sig --pin-file pin" + key);
    Good(row.check);
    Good("softdevice verify msg sig" + key);
    Good("softdevice verify msg sig --public-key pub");
    Good("softdevice sign - --pin-file pin -o sig <msg" + key);
    Good(row.check);
    EXPECT_EQ(Run("softdevice verify pin sig" + key).status, 1);
    EXPECT_EQ(Run("softdevice verify msg msg" + key).status, 1);
  }
  Good(
      "softdevice sign msg -o sig --pin-file pin --folder keys --keypair sm2 --id "
      "alice@example.org");
  Good(
      "openssl pkeyutl -verify -pubin -inkey pub -rawin -digest sm3 -in msg -sigfile sig "
      "-pkeyopt distid:alice@example.org");
  Walk({{"softdevice verify msg sig --public-key pub", 1, "NOT valid"},
        {"softdevice verify msg sig --public-key pub --id alice@example.org", 0, "valid"}});
}

TEST_F(Softdevice, CiphertextsGoBothWaysWithOpenssl) {
  Generate("rsa-2048");
  Generate("sm2");
  for (const std::string& name : Words{"rsa-2048", "sm2"}) {
    SCOPED_TRACE(name);
    const std::string key = " --folder keys --keypair " + name;
    Good("softdevice public-key -o pub" + key);
    Good("openssl pkeyutl -encrypt -pubin -inkey pub -in msg -out theirs");
    Good("softdevice decrypt theirs -o plain --pin-file pin" + key + " && cmp plain msg");
    for (const std::string& with : Words{key, " --public-key pub"}) {
      Good("softdevice encrypt msg -o ours" + with);
      Good("softdevice decrypt ours -o plain --pin-file pin" + key + " && cmp plain msg");
    }
    Good("softdevice decrypt ours --pin-file pin" + key + " | cmp - msg");
  }
  // A key that openssl holds reads what we write in its form.
  Good("openssl genpkey -algorithm SM2 -out sm2.pem && openssl pkey -in sm2.pem -pubout -out pub");
  Good("softdevice encrypt msg --format der -o ours --public-key pub");
  Good("openssl pkeyutl -decrypt -inkey sm2.pem -in ours -out plain && cmp plain msg");
  Walk(
      {{"softdevice decrypt msg --folder keys --keypair sm2 --pin-file pin", 1, "does not decrypt"},
       {"openssl asn1parse -genstr SEQUENCE:x -genconf /dev/null -noout -out der; printf "
        "'\\060\\003\\002\\001\\005' >der; softdevice decrypt der --folder keys --keypair sm2 "
        "--pin-file pin",
        1, "no SM2 ciphertext"},
       {"head -c 246 /dev/zero | softdevice encrypt - -o x --folder keys --keypair rsa-2048", 1,
        "at most 245 bytes"},
       {"softdevice encrypt /dev/null -o x --folder keys --keypair sm2", 1, "empty"},
       {"softdevice encrypt msg -o msg --folder keys --keypair sm2", 1, "replace the input"}});
}

TEST_F(Softdevice, ImportsWhatPeopleHave) {
  std::ofstream("pass") << "open sesame\n";
  const std::string kinds[] = {"RSA -pkeyopt rsa_keygen_bits:2048",
                               "EC -pkeyopt ec_paramgen_curve:P-256", "SM2"};
  const std::string forms[] = {
      "openssl pkey -in key -out f",  // PKCS#8
      "openssl pkey -in key -outform DER -out f",
      "openssl pkcs8 -topk8 -in key -v2 aes-256-cbc -passout file:pass -out f",
      "openssl pkcs8 -topk8 -in key -outform DER -passout file:pass -out f",
      "$tool -in key -out f",  // PKCS#1, SEC1
      "$tool -in key -outform DER -out f",
      "$tool -in key -aes128 -passout file:pass -out f",
  };
  int number = 0;
  for (const std::string& kind : kinds) {
    Good("openssl genpkey -algorithm " + kind +
         " -out key && openssl pkey -in key -pubout -out pub");
    const std::string tool =
        kind[0] == 'R' ? "tool='openssl rsa -traditional'; " : "tool='openssl ec'; ";
    for (const std::string& form : forms) {
      const std::string label = "key" + std::to_string(number++);
      SCOPED_TRACE(kind + ", " + form);
      Good(tool + form);
      Good("softdevice import f --folder keys --pin-file pin --passphrase-file pass --label " +
           label);
      Good("softdevice public-key --folder keys --keypair " + label + " | cmp - pub");
    }
    // The stored private key is the one of the file.
    Good("softdevice sign msg --folder keys --pin-file pin -o sig --keypair key" +
         std::to_string(number - 1));
    Good("softdevice verify msg sig --public-key pub");
  }
}

TEST_F(Softdevice, ImportsPkcs12WithItsCertificates) {
  std::ofstream("pass") << "open sesame\n";
  Good("openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -subj /CN=Issuer -out ca.crt");
  Good("openssl req -newkey rsa:2048 -nodes -keyout key -subj /CN=Alice -out csr");
  Good("openssl x509 -req -in csr -CA ca.crt -CAkey ca.key -CAcreateserial -out crt");
  for (const std::string& form : Words{"", "-legacy"}) {
    const std::string name = "p12" + form;
    Good("openssl pkcs12 -export " + form +
         " -inkey key -in crt -certfile ca.crt -passout file:pass -out p12");
    Good("softdevice import p12 --folder keys --pin-file pin --passphrase-file pass --label " +
         name);
    const std::string key = " --folder keys --keypair " + name;
    EXPECT_NE(Good("softdevice cert list" + key).find("CN = Alice"), std::string::npos);
    Good("softdevice cert export 1" + key + " >c.pem && openssl x509 -in crt | cmp - c.pem");
    Good("softdevice cert export 2 --der -o c.der" + key +
         " && openssl x509 -in ca.crt -outform DER | cmp - c.der");
  }
  Walk({{"softdevice import p12 --folder keys --pin-file pin --passphrase-file wrong --label x", 1,
         "passphrase"},
        {"softdevice import crt --folder keys --pin-file pin --label x", 1, "no private key"},
        {"softdevice import /dev/null --folder keys --pin-file pin --label x", 1, "no private key"},
        {"openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-384 -out p384;"
         "softdevice import p384 --folder keys --pin-file pin --label x",
         1, "RSA, P-256 and SM2"}});
}

TEST_F(Softdevice, RequestsAndCertificatesAreAcceptedByOpenssl) {
  for (const std::string& name : Words{"rsa-2048", "p-256", "sm2"}) {
    SCOPED_TRACE(name);
    Generate(name);
    const std::string key = " --folder keys --pin-file pin --keypair " + name;
    const std::string subject = " --subject '/C=CN/O=A\\/B Übung/CN=alice' --san DNS:a.example";
    const std::string id = name == "sm2" ? " -vfyopt distid:" + std::string(IDENTITY) : "";
    Good("softdevice csr -o csr" + key + subject);
    Good("openssl req -in csr -noout -verify" + id);
    const std::string text = Good("openssl req -in csr -noout -text -nameopt utf8,sep_comma_plus");
    EXPECT_NE(text.find("O=A/B Übung"), std::string::npos) << text;
    EXPECT_NE(text.find("DNS:a.example"), std::string::npos) << text;
    // openssl can't be told the id for the self-signature of a trust anchor; its default is "".
    Good("softdevice self-sign --store --days 30 --id '' -o crt" + key + subject);
    Good("openssl verify -x509_strict -check_ss_sig -CAfile crt crt");
    Good("softdevice self-sign -o crt2" + key + subject);
    Good("openssl verify -x509_strict -CAfile crt2" + id + " crt2");
    Good("softdevice cert export --folder keys --keypair " + name + " | cmp - crt");
    Good("softdevice cert add crt2" + key);
    Good("softdevice cert delete 1" + key);
    Good("softdevice cert export 1 --folder keys --keypair " + name + " | cmp - crt2");
  }
  Walk({{"softdevice csr --folder keys --keypair sm2 --pin-file pin --subject CN=x", 1, "slash"},
        {"softdevice csr --folder keys --keypair sm2 --pin-file pin --subject /XX=x", 1, "XX=x"},
        {"softdevice csr --folder keys --keypair sm2 --pin-file pin --subject /CN=x --san a", 1,
         "DNS:"},
        {"softdevice cert export 2 --folder keys --keypair sm2", 1, "has 1 certificate"},
        {"softdevice cert add msg --folder keys --keypair sm2 --pin-file pin", 1,
         "no certificate"}});
}

TEST_F(Softdevice, DataObjectsAndTheWayBackToDeletingKeypairs) {
  Generate("p-256");
  Generate("sm2");
  const char* const remove =
      "softdevice delete-keypair --folder keys --keypair sm2 --pin-file pin --yes";
  Walk({{"softdevice data list --folder keys", 0, "No data objects"},
        {"softdevice data tidy --folder keys", 1, "no list"},
        {"softdevice data create 7 16 --folder keys", 0, "7"},
        {"softdevice data create 7 16 --folder keys", 1, "exists already"},
        {"softdevice data write 7 msg --offset 4 --folder keys", 0, "12 bytes"},
        {"softdevice data write 7 msg --offset 5 --folder keys", 1, "beyond the end"},
        {"softdevice data read 7 --offset 4 --folder keys | cmp - msg", 0, ""},
        {"softdevice data read 7 --offset 8 --length 7 --folder keys", 0, "message"},
        {"softdevice data read 7 --offset 17 --folder keys", 1, "only 16 bytes"},
        {"softdevice data read 8 --folder keys", 1, "no data object 8"},
        {"softdevice data list --folder keys", 0, "7  16 bytes"},
        {remove, 1, "data delete"},
        {"softdevice data tidy --folder keys", 1, "still holds"},
        {"softdevice data delete 7 --folder keys", 0, ""},
        {remove, 1, "data tidy"},
        {"softdevice data tidy --folder keys", 0, "can be deleted again"},
        {remove, 0, "Deleted keypair sm2"},
        {"softdevice sign msg -o sig --folder keys --pin-file pin", 0, "ECDSA"},
        {"softdevice list --folder keys | grep -c type", 0, "1\n"}});
}

TEST_F(Softdevice, PinIsChangedAndNothingElseOpens) {
  Generate("p-256");
  Walk({{"softdevice pin change --folder keys --pin-file wrong --new-pin-file msg", 1, "Wrong PIN"},
        {"softdevice pin change --folder keys --pin-file pin --new-pin-file /dev/null", 1,
         "empty PIN"},
        {"softdevice pin change --folder keys --pin-file pin --new-pin-file msg", 0, "changed"},
        {"softdevice sign msg -o sig --folder keys --pin-file pin", 1, "Wrong PIN"},
        {"test ! -e sig", 0, ""},
        {"NEW='the message' softdevice sign msg -o sig --folder keys --pin-env NEW", 0, "Signed"},
        {"softdevice sign msg -o sig --folder keys --pin-env UNSET", 1, "not set"},
        {"softdevice create --folder k2 --label Two; softdevice pin change --folder k2 --pin-file "
         "pin "
         "--new-pin-file msg",
         1, "no keypairs"}});
}

TEST_F(Softdevice, CreateRefusesWhatWouldLoseSomething) {
  struct stat status = {};
  ASSERT_EQ(stat("keys/0001", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  ASSERT_EQ(stat("keys", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  Generate("p-256");
  const std::string long63(63, 'x');
  const std::string file = Content("keys/0001");
  Walk({{"softdevice create --folder keys --label Other --serial 0001", 1, "exists already"},
        {"echo rest >keys/half; softdevice create --folder keys --label B --serial half", 1,
         "exists already"},
        {"echo rest >keys/old.bak; softdevice create --folder keys --label B --serial old", 1,
         "backup"},
        {"softdevice create --folder keys --label ''", 2, "1 to 63"},
        {("softdevice create --folder keys --label x" + long63).c_str(), 2, "1 to 63"},
        {("softdevice create --folder deep/er/keys --label " + long63).c_str(), 0, long63.c_str()},
        {"softdevice create --folder keys --label \"$(printf 'a\\033b')\"", 2, "control"},
        {"softdevice create --folder keys --label B --serial ../../b.bak && test -e "
         "keys/______b_bak",
         0, ""},
        {"softdevice create --folder msg/keys --label B", 1, "Can't make the folder"},
        {"softdevice list --folder keys", 0, "Passed over keys/half: damaged"}});
  EXPECT_EQ(Content("keys/0001"), file);
  Good("for i in $(seq 64); do cp keys/0001 keys/copy$i; done");
  Walk({{"softdevice create --folder keys --label last", 1, "64 devices"}});
}

TEST_F(Softdevice, DamageIsToldAndABackupBringsTheDeviceBack) {
  Generate("p-256");
  Good("cp keys/0001 copy && printf X | dd of=keys/0001 bs=1 seek=20 conv=notrunc");
  Walk({{"softdevice list --folder keys", 0, "Passed over keys/0001: damaged"},
        {"softdevice sign msg -o sig --folder keys --pin-file pin", 1, "no device"},
        {"cp copy keys/0001.bak; softdevice sign msg -o sig --folder keys --pin-file pin", 0,
         "Signed"},
        {"cmp copy keys/0001; test ! -e keys/0001.bak", 0, ""}});
}

TEST_F(Softdevice, RefusalsSayWhyAndChangeNothing) {
  Generate("p-256");
  Good("softdevice keygen p-256 --type 2 --folder keys --pin-file pin");
  const std::string file = Content("keys/0001");
  Walk({{"softdevice", 2, "keygen"},
        {"softdevice --help", 0, "Exit status"},
        {"softdevice keygen --help", 0, "rsa-4096"},
        {"softdevice frobnicate", 2, "no command frobnicate"},
        {"softdevice keygen p-384 --folder keys --pin-file pin", 2, "rsa-1024, rsa-2048"},
        {"softdevice keygen sm2 --folder keys --pin 1234", 2, "--pin"},
        {"softdevice keygen sm2 --type 0 --folder keys --pin-file pin", 2, "range"},
        {"softdevice list --folder ''", 2, "must not be empty"},
        {"softdevice list --folder nowhere", 1, "softdevice create"},
        {"softdevice keygen sm2 --folder keys --pin-file wrong", 1, "Wrong PIN"},
        {"softdevice keygen sm2 --folder keys --pin-file nofile", 1, "No such file"},
        {"head -c 300 /dev/zero | tr '\\0' x >big; softdevice keygen sm2 --folder keys --pin-file "
         "big",
         1, "too long"},
        {"softdevice keygen p-256 --folder keys --pin-file pin", 1, "exists already"},
        {"softdevice sign msg -o x --folder keys --pin-file pin", 1, "--type"},
        {"softdevice sign msg -o x --folder keys --pin-file pin --keypair y", 1, "p-256 (type 2)"},
        {"softdevice sign msg -o x --folder keys --pin-file pin --type 2", 0, "ECDSA"},
        {"softdevice sign nofile -o x --folder keys --pin-file pin --type 2", 1, "nofile"},
        {"softdevice sign msg -o no/x --folder keys --pin-file pin --type 2", 1, "no/x"},
        {"softdevice sign msg --folder keys --pin-file pin --type 2 >/dev/full", 1, "No space"},
        {"softdevice list --folder keys >/dev/full", 1, "standard output"},
        {"softdevice encrypt msg -o x --folder keys --type 2", 1, "signs only"},
        {"softdevice list --device x --folder keys", 2, "--device"},
        {"softdevice data list --device x --folder keys", 1, "0001 (Demo)"},
        {"softdevice create --folder keys --label Demo; softdevice data list --device Demo "
         "--folder keys",
         1, "--device"},
        {"softdevice data list --device 0001 --folder keys", 0, ""}});
  EXPECT_EQ(Content("keys/0001"), file);
}

// --- On a terminal
// ---------------------------------------------------------------------------------

// Converse runs a command line on a terminal of its own and gives the answers, each when the
// program has turned the echo off (or left it on, for an answer that begins with '+').
static Answer Converse(const std::string& line, const std::vector<std::string>& answers) {
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
    _exit(127);
  }
  Answer answer = {};
  auto next = answers.begin();
  bool asked = false;  // a prompt has come since the last answer
  for (;;) {
    pollfd ready = {terminal, POLLIN, 0};
    if (poll(&ready, 1, 20) > 0) {
      char bytes[256];
      const ssize_t count = read(terminal, bytes, sizeof bytes);
      if (count <= 0) break;  // the program has ended
      answer.said.append(bytes, static_cast<size_t>(count));
      asked = answer.said.ends_with(": ");
    }
    termios mode = {};
    if (!asked || next == answers.end() || tcgetattr(terminal, &mode) != 0) continue;
    const bool echo = next->starts_with('+');
    if (((mode.c_lflag & ECHO) != 0) != echo) continue;
    const std::string text = next->substr(echo ? 1 : 0) + "\n";
    EXPECT_EQ(write(terminal, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    asked = false;
    ++next;
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(terminal);
  EXPECT_EQ(next, answers.end()) << answer.said;
  answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return answer;
}

TEST_F(Softdevice, AsksForThePinOnTheTerminal) {
  struct Row {
    const char* line;
    std::vector<std::string> answers;
    int status;
    const char* says;
  };
  const Row rows[] = {
      {"softdevice keygen p-256 --folder keys", {"s3cret", "s3crot"}, 1, "differ"},
      {"softdevice keygen p-256 --folder keys", {"s3cret", "s3cret"}, 0, "Made"},
      {"softdevice keygen p-256 --label b --folder keys", {"s3cret"}, 0, "Made"},
      {"softdevice sign msg -o sig --keypair b --folder keys", {"s3cret"}, 0, "Signed"},
      {"softdevice sign msg -o sig --keypair b --folder keys", {"s3crot"}, 1, "Wrong PIN"},
      {"softdevice sign msg --keypair b --folder keys", {}, 1, "--output"},
      {"softdevice pin change --folder keys", {"s3cret", "n3w", "n3w"}, 0, "changed"},
      {"softdevice delete-keypair --keypair b --folder keys",
       {"n3w", "+no"},
       1,
       "Nothing was deleted"},
      {"softdevice delete-keypair --keypair b --folder keys", {"n3w", "+b"}, 0, "Deleted"},
      {"setsid -w softdevice sign msg -o sig --folder keys </dev/null", {}, 1, "no terminal"},
  };
  for (const Row& row : rows) {
    const Answer answer = Converse(row.line, row.answers);
    EXPECT_EQ(answer.status, row.status) << row.line << "\n" << answer.said;
    EXPECT_NE(answer.said.find(row.says), std::string::npos) << row.line << "\n" << answer.said;
    for (const char* secret : {"s3cret", "s3crot", "n3w"}) {
      EXPECT_EQ(answer.said.find(secret), std::string::npos) << row.line << "\n" << answer.said;
    }
  }
}
