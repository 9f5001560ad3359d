// DuckDB's CSV reader as a competitor in compare.py: the orders file into a typed table of a DuckDB file.
// DuckDB's SQLite extension is downloaded at run time, which this machine cannot do, so the rows land in
// DuckDB's own storage, not in the SQLite file the other tools write.
//
//     node bench/duckdb_import.mjs FILE.csv DB.duckdb
//
// The dialect and the column types are given, so DuckDB sniffs nothing; it runs on every core, in one
// transaction, as its users would run it.
import { DuckDBInstance } from '@duckdb/node-api';

const [csv, dbFile] = process.argv.slice(2);
if (!csv || !dbFile) {
    console.error('usage: node duckdb_import.mjs FILE.csv DB.duckdb');
    process.exit(2);
}
const literal = (text) => "'" + text.replaceAll("'", "''") + "'";

const instance = await DuckDBInstance.create(dbFile, { autoinstall_known_extensions: 'false' });
const connection = await instance.connect();
await connection.run(`CREATE TABLE IF NOT EXISTS orders(id BIGINT, amount DOUBLE, order_date DATE,
    customer VARCHAR, city VARCHAR, note VARCHAR, paid BOOLEAN)`);
await connection.run(`INSERT INTO orders SELECT * FROM read_csv(${literal(csv)}, header = true, delim = ',',
    quote = '"', escape = '"', thousands = ',', auto_detect = false,
    columns = {'id': 'BIGINT', 'amount': 'DOUBLE', 'order_date': 'DATE', 'customer': 'VARCHAR',
               'city': 'VARCHAR', 'note': 'VARCHAR', 'paid': 'BOOLEAN'})`);
connection.closeSync();
instance.closeSync();
