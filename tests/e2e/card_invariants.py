"""What a card's store must hold whatever happened to the tool (killed, run concurrently), read
with sqlite3 and plistlib only: every identity is a certificate item, a key item and a stored-key
record, or it is not there at all."""
import collections
import dataclasses
import plistlib
import sqlite3

DRIVER, INSTANCE = "org.keyloft.token", "user"


@dataclasses.dataclass
class Store:
    items: list  # (position, kind, object_id, label, certificate, can_sign, can_decrypt, can_kx)
    records: dict  # {hash bytes: record dict}
    problems: list  # what could not be read or decoded

    def identities(self):
        """{hash: (its items without their positions, its record)} for every hash that has an item
        or a record; equal values mean an identity was left as it was."""
        found = collections.defaultdict(lambda: ([], None))
        for _, kind, object_id, *rest in self.items:
            found[object_id][0].append((kind, *rest))
        for hash_, record in self.records.items():
            found[hash_] = (found[hash_][0], record)
        return {hash_: (tuple(sorted(rows, key=repr)), record)
                for hash_, (rows, record) in found.items()}

    def labelled(self, label):
        """The hashes of the key items carrying this label."""
        return [object_id for _, kind, object_id, item_label, *_ in self.items
                if kind == "key" and item_label == label]


def read_store(db_path):
    problems = []
    db = sqlite3.connect(db_path, timeout=30)
    try:
        check = db.execute("PRAGMA integrity_check").fetchall()
        if check != [("ok",)]:
            problems.append(f"integrity check: {check}")
        items = db.execute(
            "SELECT position, kind, object_id, label, certificate, can_sign, can_decrypt,"
            " can_key_exchange FROM items WHERE driver=? AND instance=? ORDER BY position",
            (DRIVER, INSTANCE)).fetchall()
        row = db.execute("SELECT config_data FROM tokens WHERE driver=? AND instance=?",
                         (DRIVER, INSTANCE)).fetchone()
    finally:
        db.close()
    records = {}
    if row is None:
        if items:
            problems.append("items without their token")
    elif row[0] is not None:
        try:
            root = plistlib.loads(row[0])
            pairs = root["keys"]
            if root.get("version") != 1 or len(pairs) % 2:
                problems.append(f"config data malformed: version {root.get('version')},"
                                f" {len(pairs)} entries")
            records = {bytes(pairs[i]): pairs[i + 1] for i in range(0, len(pairs) - 1, 2)}
        except Exception as error:  # any decoding failure is a finding, not a test crash
            problems.append(f"config data undecodable: {error!r}")
    return Store(items, records, problems)


def violations(store):
    """Every way the store breaks the one-identity-is-three-parts rule, as readable lines."""
    found = list(store.problems)
    positions = [item[0] for item in store.items]
    if positions != list(range(len(positions))):
        found.append(f"item positions not 0..{len(positions) - 1}: {positions}")
    kinds = collections.defaultdict(list)
    for _, kind, object_id, *_ in store.items:
        kinds[object_id].append(kind)
    for hash_, present in kinds.items():
        name = hash_.hex().upper()
        if sorted(present) != sorted(set(present)):
            found.append(f"{name}: duplicate items {present}")
        if "key" in present and hash_ not in store.records:
            found.append(f"{name}: key item without its stored-key record")
        if "certificate" in present and "key" not in present:
            found.append(f"{name}: certificate item without its key item")
    for hash_, record in store.records.items():
        present = kinds.get(hash_, [])
        if "certificate" not in present or "key" not in present:
            found.append(f"{hash_.hex().upper()}: stored-key record with items {present}")
        if not isinstance(record, dict):
            found.append(f"{hash_.hex().upper()}: record is not a dictionary")
    return found


def check(db_path):
    """(store or None, violations): a store that cannot be read at all is one violation."""
    try:
        store = read_store(db_path)
    except sqlite3.Error as error:
        return None, [f"store unreadable: {error}"]
    return store, violations(store)


HEADINGS = ["Key Type", "Public Key Hash", "Prot", "Label", "Common Name", "Email Address",
            "Valid To", "Valid"]


def listed_rows(output):
    """The rows of a list-identities table cut at the heading line's column starts, or None when
    the output is no table."""
    lines = output.split("\n")
    if not lines or lines[-1] != "" or any(h not in lines[0] for h in HEADINGS):
        return None
    starts = []
    for heading in HEADINGS:
        starts.append(lines[0].index(heading, starts[-1] + 1 if starts else 0))
    return [[line[a:b].rstrip(" ") for a, b in zip(starts, starts[1:] + [len(line)])]
            for line in lines[1:-1]]
