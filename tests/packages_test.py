#!/usr/bin/env python3
"""The Debian packages hold what they should, and what they hold works: packages_test.py BUILD

Makes the packages of a build, unpacks them into a scratch folder, and there types the commands of
docs/integration.md, which compile and run the examples. Needs no root.
"""
import glob
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def make_packages(build, scratch):
    run("cpack", "-G", "DEB", "--config", f"{build}/CPackConfig.cmake", "-B", scratch)
    for package in glob.glob(f"{scratch}/*.deb"):
        run("dpkg-deb", "-x", package, f"{scratch}/root")
        name = os.path.basename(package).split("_")[0]
        if name != "libvakro0":
            needs = run("dpkg-deb", "-f", package, "Depends")
            assert "libvakro0" in needs, f"{package} needs only {needs}"
        for file in ("copyright", "changelog.gz"):
            assert os.path.exists(f"{scratch}/root/usr/share/doc/{name}/{file}"), f"{name}: {file}"
    assert len(glob.glob(f"{scratch}/*.deb")) == 4, "a package is missing"
    return f"{scratch}/root/usr"


def check_manual(usr, version):
    for page, names in (("man1/softdevice.1.gz", "create keygen sign verify"),
                        ("man3/vakro_device.3.gz", "DeviceInit DeviceSign VAKRO_WRONG_PIN")):
        path = f"{usr}/share/man/{page}"
        shown = subprocess.run(["man", "--warnings", "-l", path], capture_output=True, text=True,
                               env={**os.environ, "MANWIDTH": "100", "LC_ALL": "C.UTF-8"})
        assert not shown.stderr, shown.stderr
        assert version in shown.stdout and all(n in shown.stdout for n in names.split()), page


def check_completion(usr, keys):
    for name in keys, keys + ".2":
        run(f"{usr}/bin/softdevice", "create", "--folder", name, "--label", "My $x", "--without-pin")
    os.rename(*(glob.glob(f"{keys}.2/*")[0] + suffix for suffix in ("", ".bak")))
    for line, completed in (("--folder x cert a", "add"), ("keygen --la", "--label"), ("sign -o m", ""),
                            (f"--folder {keys} sign --device M", "My\\ \\$x"),
                            (f"--folder {keys}.2 sign --device M", "")):  # nothing is mended unheard
        found = run("bash", "-c", f". {usr}/share/bash-completion/completions/softdevice; "
                    f"COMP_WORDS=({usr}/bin/softdevice {line}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1)); "
                    '_softdevice; echo "${COMPREPLY[*]}"')
        assert found == completed + "\n", f"{line} is completed by {found}"


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
        check_completion(usr, f"{scratch}/keys")
        check_door(usr)
        print(run("python3", f"{ROOT}/tests/documents_test.py", "docs/integration.md",
                  env={**os.environ, "LD_LIBRARY_PATH": f"{usr}/lib", "CMAKE_PREFIX_PATH": usr,
                       "PKG_CONFIG_PATH": f"{usr}/lib/pkgconfig",
                       "PATH": f"{usr}/bin:{os.environ['PATH']}"}))
    print("the packages are as they should be")


main(os.path.abspath(sys.argv[1]))
