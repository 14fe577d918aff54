// Clients that nobody here wrote, against the file API of a real tuqvu: curl (upload
// from a file and from a pipe, resume, time conditions), wget (mirroring a folder,
// timestamping, continuing), Node's fetch and Python's requests (UTF-8 names, streamed
// bodies, conditional writes).
#include <common/files.h>
#include <common/shell.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "support/httpclient.h"
#include "support/tuqvuprocess.h"

using namespace brokertest;
namespace fs = boost::filesystem;

namespace {

using tuqvutest::CommandRun;
using tuqvutest::run;
using tuqvutest::shellWord;
using tuqvutest::writeFile;

std::string randomBytes(std::size_t size) {
  std::mt19937 generator(42);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator() & 0xff);
  return bytes;
}

class FileApiClients : public ::testing::Test {
protected:
  void SetUp() override {
    TuqvuProcess::Setup setup;
    setup.env["HOME"] = fHome.path();
    setup.env["TMPDIR"] = fTmp.path();
    fBroker = std::make_unique<TuqvuProcess>(setup);
    fBase = "http://127.0.0.1:" + std::to_string(fBroker->port()) + "/files";
  }

  fs::path tmp() const { return fs::path(fTmp.path()); }
  fs::path work() const { return fs::path(fWork.path()); }
  std::string curl() const { return "curl -sS -f -u robot:" + shellWord(fBroker->secret()) + " "; }
  std::string wget() const {
    return "wget -q --auth-no-challenge --user=robot --password=" + shellWord(fBroker->secret()) +
           " ";
  }
  // Environment for the scripts of Node and Python.
  std::string scriptEnvironment() const {
    return "BASE=" + shellWord(fBase) + " SECRET=" + shellWord(fBroker->secret()) + " ";
  }

  TempDir fHome, fTmp, fWork;
  std::unique_ptr<TuqvuProcess> fBroker;
  std::string fBase;
};

TEST_F(FileApiClients, CurlUploadsAFileAndAPipeAndTheNamesAreDecoded) {
  writeFile(work() / "local.txt", "from a file");
  CommandRun upload = run(curl() + "-T " + shellWord((work() / "local.txt").string()) + " " +
                          shellWord(fBase + "/tmp/my%20file.txt"));
  ASSERT_EQ(0, upload.status) << upload.output;
  EXPECT_EQ("from a file", tuqvutest::readFile(tmp() / "my file.txt"));
  // A pipe has no length: curl sends it chunked.
  CommandRun piped =
      run("printf 'from a pipe' | " + curl() + "-T - " + shellWord(fBase + "/tmp/piped.txt"));
  ASSERT_EQ(0, piped.status) << piped.output;
  EXPECT_EQ("from a pipe", tuqvutest::readFile(tmp() / "piped.txt"));
  CommandRun read = run(curl() + shellWord(fBase + "/tmp/my%20file.txt"));
  EXPECT_EQ("from a file", read.output);
}

TEST_F(FileApiClients, CurlResumesACutDownloadAndSkipsAnUnchangedOne) {
  const std::string content = randomBytes(300000);
  writeFile(tmp() / "big.bin", content);
  writeFile(work() / "big.bin", content.substr(0, 100000));
  const std::string target = shellWord((work() / "big.bin").string());
  CommandRun resumed = run(curl() + "-C - -o " + target + " " + shellWord(fBase + "/tmp/big.bin"));
  ASSERT_EQ(0, resumed.status) << resumed.output;
  EXPECT_TRUE(tuqvutest::readFile(work() / "big.bin") == content);
  // -z with the local copy: nothing comes when the robot's file is not newer.
  CommandRun conditional = run(curl() + "-o /dev/null -w '%{http_code}' -z " + target + " " +
                               shellWord(fBase + "/tmp/big.bin"));
  EXPECT_EQ("304", conditional.output);
}

TEST_F(FileApiClients, WgetMirrorsAFolderAndFetchesOnlyWhatChanged) {
  writeFile(tmp() / "site" / "a.txt", "a");
  writeFile(tmp() / "site" / "sub dir" / "b.txt", "bb");
  writeFile(tmp() / "site" / "sub dir" / "deeper" / "c.txt", "ccc");
  const std::string mirror = (work() / "mirror").string();
  CommandRun mirrored =
      run("cd " + shellWord(work().string()) + " && " + wget() +
          "-r -np -nH --cut-dirs=3 -R 'index.html*' -P mirror " + shellWord(fBase + "/tmp/site/"));
  ASSERT_EQ(0, mirrored.status) << mirrored.output;
  EXPECT_EQ("a", tuqvutest::readFile(mirror + "/a.txt"));
  EXPECT_EQ("bb", tuqvutest::readFile(mirror + "/sub dir/b.txt"));
  EXPECT_EQ("ccc", tuqvutest::readFile(mirror + "/sub dir/deeper/c.txt"));

  // -N: a file that did not change is not fetched again.
  const std::string stamped = (work() / "stamped").string();
  fs::create_directories(stamped);
  const std::string fetch = "cd " + shellWord(stamped) + " && " + wget() + "-N -S " +
                            shellWord(fBase + "/tmp/site/a.txt");
  ASSERT_EQ(0, run(fetch).status);
  CommandRun again = run(fetch);
  EXPECT_EQ(0, again.status) << again.output;
  EXPECT_EQ(std::string::npos, again.output.find("200 OK")) << again.output;
}

TEST_F(FileApiClients, WgetContinuesAPartialDownload) {
  const std::string content = randomBytes(200000);
  writeFile(tmp() / "part.bin", content);
  writeFile(work() / "part.bin", content.substr(0, 50000));
  CommandRun continued = run("cd " + shellWord(work().string()) + " && " + wget() + "-c -S " +
                             shellWord(fBase + "/tmp/part.bin"));
  ASSERT_EQ(0, continued.status) << continued.output;
  EXPECT_NE(std::string::npos, continued.output.find("206 Partial Content")) << continued.output;
  EXPECT_TRUE(tuqvutest::readFile(work() / "part.bin") == content);
}

TEST_F(FileApiClients, NodeFetchWritesReadsAndGuardsAFile) {
  if (run("node --version").status != 0) GTEST_SKIP() << "no Node.js here";
  const std::string script = R"JS(
const base = process.env.BASE;
const auth = 'Basic ' + Buffer.from('robot:' + process.env.SECRET).toString('base64');
const url = base + '/tmp/' + encodeURIComponent('né fetch.txt');
(async () => {
  const put = await fetch(url, {method: 'PUT', headers: {Authorization: auth}, body: 'from node'});
  const tag = put.headers.get('etag');
  const get = await fetch(url, {headers: {Authorization: auth}});
  const text = await get.text();
  // A streamed body has no length.
  const stream = new ReadableStream({start(c) { c.enqueue(new TextEncoder().encode('streamed')); c.close(); }});
  const streamed = await fetch(base + '/tmp/streamed.txt',
      {method: 'PUT', headers: {Authorization: auth}, body: stream, duplex: 'half'});
  const stale = await fetch(url, {method: 'PUT', headers: {Authorization: auth, 'If-Match': '"old"'}, body: 'lost'});
  console.log(JSON.stringify({put: put.status, tag: !!tag, get: get.status, text,
                              streamed: streamed.status, stale: stale.status}));
})().catch(e => { console.error(e); process.exit(1); });
)JS";
  writeFile(work() / "client.js", script);
  CommandRun node = run(scriptEnvironment() + "node " + shellWord((work() / "client.js").string()));
  ASSERT_EQ(0, node.status) << node.output;
  const nlohmann::json seen = nlohmann::json::parse(node.output);
  EXPECT_EQ(201, seen["put"]);
  EXPECT_EQ(true, seen["tag"]);
  EXPECT_EQ(200, seen["get"]);
  EXPECT_EQ("from node", seen["text"]);
  EXPECT_EQ(201, seen["streamed"]);
  EXPECT_EQ(412, seen["stale"]);
  EXPECT_EQ("from node", tuqvutest::readFile(tmp() / "n\xc3\xa9 fetch.txt"));
  EXPECT_EQ("streamed", tuqvutest::readFile(tmp() / "streamed.txt"));
}

TEST_F(FileApiClients, PythonRequestsUploadsAGeneratorAndListsTheFolder) {
  if (run("python3 -c 'import requests'").status != 0) GTEST_SKIP() << "no requests module here";
  const std::string script = R"PY(
import json, os, requests
base, secret = os.environ["BASE"], os.environ["SECRET"]
session = requests.Session()
session.auth = ("robot", secret)
def parts():
    yield b"made "
    yield b"by a generator"
put = session.put(base + "/tmp/gen%20erated.txt", data=parts())
listing = session.get(base + "/tmp/", headers={"Accept": "application/json"})
names = [entry["name"] for entry in listing.json()]
print(json.dumps({"put": put.status_code, "names": names}))
)PY";
  writeFile(work() / "client.py", script);
  CommandRun python =
      run(scriptEnvironment() + "python3 " + shellWord((work() / "client.py").string()));
  ASSERT_EQ(0, python.status) << python.output;
  const nlohmann::json seen = nlohmann::json::parse(python.output);
  EXPECT_EQ(201, seen["put"]);
  EXPECT_NE(seen["names"].end(),
            std::find(seen["names"].begin(), seen["names"].end(), "gen erated.txt"));
  EXPECT_EQ("made by a generator", tuqvutest::readFile(tmp() / "gen erated.txt"));
}

}  // namespace
