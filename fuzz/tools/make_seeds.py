#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (fuzz/<target>/corpus/). The seeds are
kept in the repository; this script only says how they were made and can make them
again: python3 fuzz/tools/make_seeds.py"""
import io
import os
import tarfile
import zipfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SHARE = os.path.join(os.path.dirname(ROOT), "share", "tuqvu", "behaviors")


def write(target, name, data):
    folder = os.path.join(ROOT, target, "corpus")
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode("utf-8")
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)


# ---- request paths
PATHS = {
    "user_file": "/behaviors/User/dance/behavior.xar",
    "bare_user": "/behaviors/dance/project.xml",
    "user_root": "/behaviors/User/",
    "system": "/behaviors/System/stand/behavior.xar",
    "boxlib": "/boxlibraries/lib/box.txt",
    "tmp": "/tmp/upload/part.bin",
    "share": "/share/tuqvu/preferences/DefaultBehaviors.xml",
    "prefix_png": "/img.PNG",
    "refused_html": "/index.html",
    "refused_noext": "/README",
    "dotdot": "/behaviors/User/../../canary/secret.txt",
    "encoded_dotdot": "/behaviors/User/%2E%2E/%2E%2E/canary/secret.txt",
    "link_dir": "/behaviors/User/escape/secret.txt",
    "link_up": "/behaviors/up/canary.txt",
    "link_abs": "/behaviors/abs.txt",
    "tmp_link": "/tmp/link/secret.txt",
    "share_link": "/share/tuqvu/escape/secret.txt",
    "share_dot": "/share/./tuqvu/x.txt",
    "prefix_link": "/secret.txt",
    "system_link": "/behaviors/System/out/secret.txt",
    "eval": "/behaviors/User/dance/?eval=ZRBehaviorManager.runBehavior('x')",
    "double_slash": "//boxlibraries//lib/./box.txt",
    "dot_ext": "/.txt",
}
for name, path in PATHS.items():
    write("filetransfer_path", name, path)

# ---- whole HTTP exchanges
H = "Host: robot\r\n"
HTTP = {
    "get_file": "GET /behaviors/User/dance/behavior.xar HTTP/1.1\r\n" + H + "\r\n",
    "get_listing": "GET /behaviors/User/ HTTP/1.1\r\n" + H + "\r\n",
    "get_missing": "GET /behaviors/User/none.xar HTTP/1.0\r\n\r\n",
    "get_system": "GET /behaviors/System/stand/behavior.xar HTTP/1.1\r\n" + H + "\r\n",
    "get_prefix": "GET /img.png HTTP/1.1\n" + "Host: robot\n\n",
    "put": "PUT /boxlibraries/a/b/c.txt HTTP/1.1\r\n" + H + "Content-Length: 5\r\n\r\nhello",
    "put_dots": "PUT /behaviors/User/new%2Exar HTTP/1.1\r\n" + H + "Content-Length: 2\r\n\r\nok",
    "put_chunked": "PUT /tmp/chunk.txt HTTP/1.1\r\n" + H +
                   "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n",
    "put_nolength": "PUT /tmp/empty.txt HTTP/1.1\r\n" + H + "\r\n",
    "put_expect": "PUT /tmp/e.txt HTTP/1.1\r\n" + H +
                  "Expect: 100-continue\r\nContent-Length: 3\r\n\r\nabc",
    "delete": "DELETE /tmp/upload HTTP/1.1\r\n" + H + "\r\n",
    "delete_missing": "DELETE /boxlibraries/none HTTP/1.1\r\n" + H + "\r\n",
    "pipelined": "PUT /tmp/p.txt HTTP/1.1\r\n" + H + "Content-Length: 3\r\n\r\nabc" +
                 "GET /tmp/p.txt HTTP/1.1\r\n" + H + "\r\n" +
                 "DELETE /tmp/p.txt HTTP/1.1\r\n" + H + "\r\n",
    "post": "POST /behaviors/User/x HTTP/1.1\r\n" + H + "Content-Length: 2\r\n\r\nhi",
    "eval": "GET /?eval=X.y() HTTP/1.1\r\n" + H + "\r\n",
    "escape_get": "GET /behaviors/User/escape/secret.txt HTTP/1.1\r\n" + H + "\r\n",
    "escape_delete": "DELETE /behaviors/User/%2E%2E/canary HTTP/1.1\r\n" + H + "\r\n",
    "escape_put": "PUT /tmp/link/x.txt HTTP/1.1\r\n" + H + "Content-Length: 1\r\n\r\nx",
    "escape_list": "GET /behaviors/up/ HTTP/1.1\r\n" + H + "\r\n",
    "short_body": "PUT /tmp/short.txt HTTP/1.1\r\n" + H + "Content-Length: 100\r\n\r\nabc",
}
for name, request in HTTP.items():
    write("filetransfer_http", name, request)

# ---- behavior files
for dirpath, _, files in os.walk(SHARE):
    if "behavior.xar" in files:
        name = os.path.relpath(dirpath, SHARE).replace("/", "_")
        with open(os.path.join(dirpath, "behavior.xar"), "rb") as f:
            write("behaviorfile", "sample_" + name, f.read())
BEHAVIORS = {
    "all_steps": """<?xml version="1.0" encoding="UTF-8"?>
<behavior>
  <log text="Hello" level="4"/>
  <wait ms="1500"/>
  <set key="Demo/Count" type="int" value="3"/>
  <raise key="Demo/Waved" type="string" value="yes"/>
  <call module="ZRMemory" method="insertData">
    <arg type="string" value="Demo/Last"/><arg type="int" value="1"/>
  </call>
  <repeat count="2"><wait ms="100"/></repeat>
  <set key="F" type="float" value="-1.5e3"/><set key="B" type="bool" value="0"/>
  <fail message="out of battery"/>
</behavior>
""",
    "bad_value": '<behavior>\n  <wait ms="soon"/>\n</behavior>\n',
    "unknown_step": "<behavior><dance/></behavior>",
    "malformed": "<behavior><log text='x'></behavior>",
    "wrong_root": "<project/>",
    "text": "<behavior>hello</behavior>",
    "nested": "<behavior>" + "<repeat count='1'>" * 64 + "<wait ms='0'/>" + "</repeat>" * 64 + "</behavior>",
    "utf16": '<?xml version="1.0" encoding="UTF-16"?><behavior><log text="\u00e9t\u00e9"/></behavior>'.encode("utf-16"),
    "bom": b"\xef\xbb\xbf<behavior><log text='x' level='6'/></behavior>",
    "endless_empty": "<behavior><repeat/></behavior>",
}
for name, text in BEHAVIORS.items():
    write("behaviorfile", name, text)

# ---- project.xml
PROJECTS = {
    "behavior": '<?xml version="1.0" encoding="UTF-8"?>\n<project>\n  <metadata key="Type" value="Behavior"/>\n  <metadata key="Name" value="Wave"/>\n  <tag>greeting</tag>\n  <tag> arms </tag>\n</project>\n',
    "resources": '<project><metadata key="Type" value="Resources"/></project>',
    "duplicates": '<project><metadata key="Type" value="A"/><metadata key="Type" value="B"/><tag>b</tag><tag>a</tag><tag>b</tag><tag>  </tag></project>',
    "wrong_root": "<behavior/>",
    "malformed": "<project><tag>x</project>",
    "empty": "",
    "no_key": '<project><metadata value="x"/><metadata key="" value="y"/></project>',
    "entities": '<project><metadata key="Type" value="&lt;&amp;&#x41;"/><tag><![CDATA[ c ]]></tag></project>',
}
for name, text in PROJECTS.items():
    write("projectxml", name, text)

# ---- packages
XAR = b'<behavior><log text="packaged"/></behavior>\n'
PROJECT = b'<project><metadata key="Type" value="Behavior"/><tag>pkg</tag></project>\n'


def zip_of(entries, links=()):
    data = io.BytesIO()
    with zipfile.ZipFile(data, "w", zipfile.ZIP_DEFLATED) as z:
        for name, content in entries:
            z.writestr(name, content)
        for name, target in links:
            info = zipfile.ZipInfo(name)
            info.create_system = 3
            info.external_attr = (0o120777 << 16)
            z.writestr(info, target)
    return data.getvalue()


def tar_of(entries, mode="w", links=(), hardlinks=()):
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode=mode) as t:
        for name, content in entries:
            info = tarfile.TarInfo(name)
            info.size = len(content)
            info.mtime = 1700000000
            t.addfile(info, io.BytesIO(content))
        for name, target in links:
            info = tarfile.TarInfo(name)
            info.type = tarfile.SYMTYPE
            info.linkname = target
            t.addfile(info)
        for name, target in hardlinks:
            info = tarfile.TarInfo(name)
            info.type = tarfile.LNKTYPE
            info.linkname = target
            t.addfile(info)
    return data.getvalue()


FILES = [("behavior.xar", XAR), ("project.xml", PROJECT), ("sounds/hello.txt", b"hello\n")]
write("package", "zip", zip_of(FILES))
write("package", "zip_folder", zip_of([("wave/" + n, c) for n, c in FILES]))
write("package", "tar", tar_of(FILES))
write("package", "tar_gz", tar_of(FILES, "w:gz"))
write("package", "tar_bz2", tar_of(FILES, "w:bz2"))
write("package", "tar_xz", tar_of(FILES, "w:xz"))
write("package", "tar_links", tar_of(FILES, links=[("inside", "sounds/hello.txt"),
                                                   ("outside", "../../canary/secret.txt")]))
write("package", "tar_hardlink", tar_of(FILES, hardlinks=[("copy.txt", "sounds/hello.txt"),
                                                          ("steal", "../canary/secret.txt")]))
write("package", "tar_dotdot", tar_of([("../../canary/secret.txt", b"overwritten\n")] + FILES))
write("package", "tar_absolute", tar_of([("/tmp/tuqvu-fuzz-absolute", b"x")] + FILES))
write("package", "zip_links", zip_of(FILES, links=[("up", "../.."), ("ok", "sounds")]))
write("package", "zip_dotdot", zip_of([("../canary/secret.txt", b"overwritten\n")] + FILES))
write("package", "truncated", tar_of(FILES, "w:gz")[:-40])

# ---- JSON-RPC bodies
RPC = {
    "call": '{"jsonrpc":"2.0","id":1,"method":"Echo.echo","params":[{"$binary":"aGk="}]}',
    "concat": '{"jsonrpc":"2.0","id":"a","method":"Echo.concat","params":["a","b"]}',
    "overload": '{"jsonrpc":"2.0","id":2,"method":"Echo.add","params":[1,2,3]}',
    "wrong_arity": '{"jsonrpc":"2.0","id":3,"method":"Echo.add","params":[1]}',
    "fail": '{"jsonrpc":"2.0","id":4,"method":"Echo.fail","params":["no"]}',
    "std": '{"jsonrpc":"2.0","id":5,"method":"Echo.throwStd"}',
    "notification": '{"jsonrpc":"2.0","method":"Echo.nothing"}',
    "batch": '[{"jsonrpc":"2.0","id":1,"method":"ZRMemory.insertData","params":["k",[1,2.5,true,null]]},'
             '{"jsonrpc":"2.0","id":2,"method":"ZRMemory.getData","params":["k"]},'
             '{"jsonrpc":"2.0","method":"ZRMemory.raiseMicroEvent","params":["e",1]},5]',
    "subscribe": '{"jsonrpc":"2.0","id":9,"method":"ZRMemory.subscribeToMicroEvent","params":["e","Echo","","echo3"]}',
    "broker_listing": '[{"jsonrpc":"2.0","id":1,"method":"ZRBroker.getModules"},'
                  '{"jsonrpc":"2.0","id":2,"method":"ZRBroker.getMethods","params":["Echo"]}]',
    "unknown": '{"jsonrpc":"2.0","id":null,"method":"Nobody.nothing"}',
    "named_params": '{"jsonrpc":"2.0","id":1,"method":"Echo.echo","params":{"a":1}}',
    "bad_version": '{"jsonrpc":"1.0","id":1,"method":"Echo.echo"}',
    "empty_batch": "[]",
    "parse_error": '{"jsonrpc":"2.0",',
    "deep": "[" * 70 + "]" * 70,
    "unicode": '{"jsonrpc":"2.0","id":1,"method":"Echo.echo","params":["\\ud83d\\ude00\\u00e9"]}',
}
for name, body in RPC.items():
    write("jsonrpc", name, body)

# ---- "?eval=" expressions (raw, still percent-encoded as in the query)
EVAL = {
    "call": "Echo.echo('dance')",
    "encoded": "Echo.concat(%27a%20b%27,%22c%22)",
    "numbers": "Echo.add(2147483647, 1, -2147483648)",
    "floats": "Echo.echo([1.5e3, -0.0, 4294967296])",
    "escapes": r"Echo.echo('\x41\u00e9\uD83D\uDE00\n\t\0')",
    "literals": "Echo.echo([true, false, null, [], ['a', [1]]])",
    "memory": "ZRMemory.insertData('key', 'value')",
    "fail": "Echo.fail('boom')",
    "std": "Echo.throwStd()",
    "unknown": "Nobody.x()",
    "syntax": "Echo.echo('unterminated",
    "bad_escape": "Echo.echo(%ZZ)",
    "spaces": "  Echo . echo ( 1 ,\t'two' )  ",
    "deep": "Echo.echo(" + "[" * 70 + "]" * 70 + ")",
}
for name, expression in EVAL.items():
    write("eval", name, expression)
