#!/usr/bin/env python3
"""The Debian packages hold what they should, and what they hold works: packages_test.py BUILD

Makes the packages of a build, unpacks them into a scratch folder, and there compiles the examples
as docs/integration.md says (by pkg-config and by CMake), runs them against a device made with the
unpacked tool, and has openssl check what they signed. Needs no root.
"""
import glob
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EXAMPLES = os.path.join(ROOT, "examples")
PIN = "correct-horse\n"


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def make_packages(build, scratch):
    run("cpack", "-G", "DEB", "--config", f"{build}/CPackConfig.cmake", "-B", scratch)
    for package in glob.glob(f"{scratch}/*.deb"):
        run("dpkg-deb", "-x", package, f"{scratch}/root")
        if "libvakro0_" not in package:
            needs = run("dpkg-deb", "-f", package, "Depends")
            assert "libvakro0" in needs, f"{package} needs only {needs}"
    names = {os.path.basename(p).split("_")[0] for p in glob.glob(f"{scratch}/*.deb")}
    assert {"libvakro0", "libvakro-dev", "softdevice"} <= names, names
    return f"{scratch}/root/usr"


def check_manual(usr, version):
    for page, names in (("man1/softdevice.1", "create keygen sign verify"),
                        ("man3/vakro_device.3", "DeviceInit DeviceSign VAKRO_WRONG_PIN")):
        path = f"{usr}/share/man/{page}"
        shown = subprocess.run(["man", "--warnings", "-l", path], capture_output=True, text=True,
                               env={**os.environ, "MANWIDTH": "100", "LC_ALL": "C.UTF-8"})
        assert not shown.stderr, shown.stderr
        assert version in shown.stdout and all(n in shown.stdout for n in names.split()), page
    completed = run("bash", "-c", f". {usr}/share/bash-completion/completions/softdevice; "
                    "COMP_WORDS=(softdevice --folder x cert a); COMP_CWORD=4; _softdevice; "
                    "echo ${COMPREPLY[@]}; COMP_WORDS=(softdevice keygen --la); COMP_CWORD=2; "
                    "_softdevice; echo ${COMPREPLY[@]}")
    assert completed == "add\n--label\n", completed


def check_examples(usr, scratch, environment):
    def checked(name, document, *options):
        run("openssl", *options, cwd=scratch)
        os.remove(f"{scratch}/{name}")

    ecdsa = ["dgst", "-sha256", "-verify", "p-256.pem", "-signature", "sig", "document"]
    sm2 = ["pkeyutl", "-verify", "-pubin", "-inkey", "sm2.pem", "-in", "document", "-sigfile",
           "sig", "-rawin", "-digest", "sm3", "-pkeyopt", "distid:1234567812345678"]
    options = {"cwd": scratch, "env": environment, "input": PIN}
    with open(f"{EXAMPLES}/sign.c") as source:
        by_hand = re.search(r"// +(cc .*)", source.read())[1]
    run("sh", "-c", by_hand.replace("sign.c", f"{EXAMPLES}/sign.c"), **options)
    run("cmake", "-S", EXAMPLES, "-B", "build", f"-DCMAKE_PREFIX_PATH={usr}", cwd=scratch)
    run("cmake", "--build", "build", cwd=scratch)
    for sign, keypair, verify in (("./sign", "p-256", ecdsa), ("build/sign", "sm2", sm2)):
        run(sign, "keys", keypair, "document", "sig", **options)
        checked("sig", "document", *verify)
    run("python3", f"{EXAMPLES}/sign.py", "keys", "p-256", "document", "sig", **options)
    checked("sig", "document", *ecdsa)
    listed = run("build/load", "libvakro_device.so.0", "keys", **options)
    assert listed == "office: 3 keypairs\n", listed  # with the one that stands for the PIN


def check_door(usr):
    """p11-kit is told where the PKCS#11 module will be."""
    for module in glob.glob(f"{usr}/share/p11-kit/modules/*"):
        with open(module) as file:
            path = re.fullmatch(r"module: /usr(/\S+)\n", file.read())[1]
        assert os.path.exists(usr + path), path


def main(build):
    version = re.search(r"project\(vakro VERSION (\S+)", open(f"{ROOT}/CMakeLists.txt").read())[1]
    with tempfile.TemporaryDirectory() as scratch:
        usr = make_packages(build, scratch)
        check_manual(usr, version)
        check_door(usr)
        environment = {**os.environ, "LD_LIBRARY_PATH": f"{usr}/lib",
                       "PKG_CONFIG_PATH": f"{usr}/lib/pkgconfig"}
        for name, content in (("pin", PIN), ("document", "a document")):
            with open(f"{scratch}/{name}", "w") as file:
                file.write(content)
        tool = f"{usr}/bin/softdevice"
        os.chdir(scratch)
        assert version in run(tool, "version")
        run(tool, "create", "--folder", "keys", "--label", "office", "--pin-file", "pin")
        for keypair in ("p-256", "sm2"):
            where = ["--folder", "keys", "--keypair", keypair]
            run(tool, "keygen", keypair, "--folder", "keys", "--pin-file", "pin")
            run(tool, "public-key", *where, "--output", f"{keypair}.pem")
        check_examples(usr, scratch, environment)
        os.chdir("/")
    print("the packages are as they should be")


main(os.path.abspath(sys.argv[1]))
