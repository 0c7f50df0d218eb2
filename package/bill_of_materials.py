#!/usr/bin/env python3
"""Writes what a package consists of: bill_of_materials.py --version VERSION FOLDER...

Into the first folder go TxSvHost.spdx.json, an SPDX 2.3 document with the files of all of them, each with its checksums, and
with the libraries that are linked in, and licenses/, with the texts that their licences ask to be passed on. Versions
and texts are those of the Debian packages that the build has used.
"""
import argparse
import datetime
import hashlib
import json
import os
import pathlib
import shutil
import subprocess

# All but the host, which has threads of its own, and the proxies, which are in C.
PROGRAMS = ["txsvcctl.exe", "txsvcrun.exe", "MinimalSubsystem.dll", "Updater.exe"]
# What is linked in: its Debian package, its licence, where it is from, and into what.
LIBRARIES = {
    "libstdc++": ("g++-mingw-w64-x86-64-posix", "GPL-3.0-or-later WITH GCC-exception-3.1",
                  "https://gcc.gnu.org/", PROGRAMS + ["TxSvHost.exe"]),
    "libgcc": ("gcc-mingw-w64-x86-64-posix", "GPL-3.0-or-later WITH GCC-exception-3.1",
               "https://gcc.gnu.org/", PROGRAMS + ["TxSvHost.exe", "TxSvHostPS.dll"]),
    "mingw-w64-runtime": ("mingw-w64-x86-64-dev", "ZPL-2.1 AND MIT AND BSD-3-Clause AND LicenseRef-public-domain",
                          "https://www.mingw-w64.org/", PROGRAMS + ["TxSvHost.exe", "TxSvHostPS.dll"]),
    "winpthreads": ("mingw-w64-x86-64-dev", "MIT AND BSD-3-Clause",
                    "https://www.mingw-w64.org/", PROGRAMS),
    "CLI11": ("libcli11-dev", "BSD-3-Clause", "https://github.com/CLIUtils/CLI11", ["txsvcctl.exe", "txsvcrun.exe"]),
    "nlohmann-json": ("nlohmann-json3-dev", "MIT", "https://github.com/nlohmann/json", ["txsvcctl.exe"]),
    "NSIS": ("nsis", "Zlib AND CPL-1.0", "https://nsis.sourceforge.io/", ["uninstall.exe"]),
}
COMMON_TEXTS = ["GPL-3"]  # What the packages' own files only refer to.


def debian(package, field):
    return subprocess.run(["dpkg-query", "-W", "-f", "${%s}" % field, package],
                          check=True, capture_output=True, text=True).stdout


def copy_licenses(folder):
    folder.mkdir(parents=True, exist_ok=True)
    for package in sorted({library[0] for library in LIBRARIES.values()}):
        # Packages of one source share a folder by a link.
        shutil.copyfile(pathlib.Path("/usr/share/doc", package, "copyright"), folder / f"{package}.txt")
    for text in COMMON_TEXTS:
        shutil.copyfile(pathlib.Path("/usr/share/common-licenses", text), folder / f"{text}.txt")
    lines = ["Parts of other makers, linked into the programs and DLLs of this package. The files beside this one have",
             "their licences, as the Debian packages that they were built from pass them on.", ""]
    lines += [f"{name} {debian(package, 'Version')} ({package}.txt): {license}; in {', '.join(users)}"
              for name, (package, license, _, users) in LIBRARIES.items()]
    (folder / "README.txt").write_text("\r\n".join(lines) + "\r\n", newline="")


def spdx_id(text):
    return "SPDXRef-" + "".join(c if c.isalnum() or c in ".-" else "-" for c in text)


def describe_file(root, path):
    data = path.read_bytes()
    name = "./" + path.relative_to(root).as_posix()
    kind = {".exe": "BINARY", ".dll": "BINARY", ".h": "SOURCE", ".cpp": "SOURCE", ".md": "DOCUMENTATION"}
    return {
        "fileName": name,
        "SPDXID": spdx_id("File-" + name[2:].replace("+", "-plus")),
        "fileTypes": [kind.get(path.suffix, "OTHER")],
        "checksums": [{"algorithm": algorithm.upper(), "checksumValue": hashlib.new(algorithm, data).hexdigest()}
                      for algorithm in ("sha1", "sha256")],
        "licenseConcluded": "NOASSERTION",
        "licenseInfoInFiles": ["NOASSERTION"],
        "copyrightText": "NOASSERTION",
    }


def describe_library(name, package, license, home):
    version = debian(package, "Version")
    return {
        "name": name,
        "SPDXID": spdx_id("Package-" + name.replace("+", "p")),
        "versionInfo": version,
        "supplier": "Organization: Debian",
        "downloadLocation": "NOASSERTION",
        "homepage": home,
        "filesAnalyzed": False,
        "licenseConcluded": license,
        "licenseDeclared": license,
        "copyrightText": "NOASSERTION",
        "comment": f"Linked in statically, from the Debian package {package}.",
        "externalRefs": [{
            "referenceCategory": "PACKAGE-MANAGER",
            "referenceType": "purl",
            "referenceLocator": f"pkg:deb/debian/{package.replace('+', '%2B')}@{version.replace('+', '%2B')}?distro=debian-12",
        }],
    }


def document(version, files):
    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    sums = sorted(next(c["checksumValue"] for c in file["checksums"] if c["algorithm"] == "SHA1") for file in files)
    code = hashlib.sha1("".join(sums).encode()).hexdigest()
    product = {
        "name": "TxSvHost",
        "SPDXID": "SPDXRef-Package-TxSvHost",
        "versionInfo": version,
        "supplier": "Organization: Tarvex, Inc.",
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": True,
        "packageVerificationCode": {"packageVerificationCodeValue": code,
                                    "packageVerificationCodeExcludedFiles": ["./TxSvHost.spdx.json"]},
        "licenseConcluded": "NOASSERTION",
        "licenseDeclared": "NOASSERTION",
        "licenseInfoFromFiles": ["NOASSERTION"],
        "copyrightText": "NOASSERTION",
    }
    libraries = [describe_library(name, *library[:3]) for name, library in LIBRARIES.items()]
    relationships = [("SPDXRef-DOCUMENT", "DESCRIBES", product["SPDXID"])]
    relationships += [(product["SPDXID"], "CONTAINS", file["SPDXID"]) for file in files]
    by_name = {file["fileName"].rsplit("/", 1)[-1]: file["SPDXID"] for file in files}
    for library, (*_, users) in zip(libraries, LIBRARIES.values()):
        relationships += [(by_name.get(user, product["SPDXID"]), "STATIC_LINK", library["SPDXID"]) for user in users]
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"TxSvHost-{version}-x64",
        "documentNamespace": f"https://spdx.org/spdxdocs/TxSvHost-{version}-x64-{code}",
        "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: make-package"]},
        "packages": [product, *libraries],
        "files": files,
        "relationships": [{"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}
                          for one, kind, other in relationships],
        "hasExtractedLicensingInfos": [{"licenseId": "LicenseRef-public-domain", "name": "Public domain",
                                        "extractedText": "Placed in the public domain by its authors."}],
    }


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--version", required=True)
    parser.add_argument("folders", type=pathlib.Path, nargs="+")
    arguments = parser.parse_args()
    runtime = arguments.folders[0]
    copy_licenses(runtime / "licenses")
    files = [describe_file(root, path) for root in arguments.folders
             for path in sorted(root.rglob("*")) if path.is_file()]
    text = json.dumps(document(arguments.version, files), indent=1)
    (runtime / "TxSvHost.spdx.json").write_text(text + "\n")


main()
