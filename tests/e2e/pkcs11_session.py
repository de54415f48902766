"""One PKCS#11 session kept open on a module while the card changes.

Run as `pkcs11_session.py MODULE`; answers one JSON line per command line on standard input:
  find              -> [[label, id hex], ...] of the private keys a fresh search finds
  sign ID_HEX DATA  -> CKM_ECDSA signature of the hex DATA by the private key with that id, hex
  sign-found ID_HEX DATA -> the same through the handle a find last gave that id, or
                    {"error": CKR name} when the module refuses it
"""
import json
import sys

import PyKCS11
from PyKCS11 import LowLevel


def private_keys(session, extra=()):
    return session.findObjects([(LowLevel.CKA_CLASS, LowLevel.CKO_PRIVATE_KEY), *extra])


def main(module):
    library = PyKCS11.PyKCS11Lib()
    library.load(module)
    session = library.openSession(library.getSlotList(tokenPresent=True)[0])
    found = {}
    for line in sys.stdin:
        command, *args = line.split()
        if command == "find":
            answer = []
            for key in private_keys(session):
                try:
                    label, id_ = session.getAttributeValue(key,
                                                           [LowLevel.CKA_LABEL, LowLevel.CKA_ID])
                except PyKCS11.PyKCS11Error as error:
                    # Deleted by the tool since the search: a handle fails at its next use.
                    if error.value != LowLevel.CKR_OBJECT_HANDLE_INVALID:
                        raise
                    continue
                answer.append([label, bytes(id_).hex()])
                found[bytes(id_).hex()] = key
        elif command == "sign-found":
            try:
                answer = bytes(session.sign(found[args[0]], bytes.fromhex(args[1]),
                                            PyKCS11.Mechanism(LowLevel.CKM_ECDSA))).hex()
            except PyKCS11.PyKCS11Error as error:
                answer = {"error": PyKCS11.CKR[error.value]}
        else:
            (key,) = private_keys(session, [(LowLevel.CKA_ID, bytes.fromhex(args[0]))])
            answer = bytes(session.sign(key, bytes.fromhex(args[1]),
                                        PyKCS11.Mechanism(LowLevel.CKM_ECDSA))).hex()
        print(json.dumps(answer), flush=True)
    session.closeSession()


if __name__ == "__main__":
    main(sys.argv[1])
