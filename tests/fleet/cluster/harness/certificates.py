# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""An authority, and certificates for servers and clients."""

import os

from .processes import run

NEW_KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]


class Authority:
    def __init__(self, folder):
        self.folder = folder
        os.makedirs(folder, exist_ok=True)
        self.certificate = os.path.join(folder, "ca.pem")
        self.key = os.path.join(folder, "ca.key")
        run(["openssl", "req", "-x509", *NEW_KEY, "-keyout", self.key, "-out", self.certificate,
             "-days", "30", "-subj", "/CN=Authority of a test"])

    def _issue(self, name, extension):
        certificate = os.path.join(self.folder, f"{name}.pem")
        key = os.path.join(self.folder, f"{name}.key")
        request = os.path.join(self.folder, f"{name}.csr")
        extensions = os.path.join(self.folder, f"{name}.ext")
        with open(extensions, "w", encoding="ascii") as file:
            file.write(extension)
        run(["openssl", "req", "-new", *NEW_KEY, "-keyout", key, "-out", request,
             "-subj", f"/CN={name}"])
        run(["openssl", "x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key,
             "-CAcreateserial", "-days", "30", "-extfile", extensions, "-out", certificate])
        return certificate, key

    def server(self, name, host):
        """A server is a client too: of the other servers."""
        return self._issue(name, f"subjectAltName=IP:{host}\n"
                                 "extendedKeyUsage=serverAuth,clientAuth\n")

    def client(self, name):
        return self._issue(name, "extendedKeyUsage=clientAuth\n")
