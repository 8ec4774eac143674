// The guide's query over many machines' logs, run by DuckDB, must say what the report
// says.
//   fleet_query.mjs GUIDE REPORT_JSON DUCKDB_MODULE      in the folder that holds logs/
import assert from 'node:assert';
import {readFileSync} from 'node:fs';
import {pathToFileURL} from 'node:url';

const [guide, report, duckdb] = process.argv.slice(2);
const {DuckDBInstance} = await import(pathToFileURL(duckdb));
const [, query] = /<!-- run by tests\/tools\/fleet\/run.sh -->\n```sql\n(.*?)```/s.exec(readFileSync(guide, 'utf8'));

const connection = await (await DuckDBInstance.create(':memory:')).connect();
let rows;
for (const statement of query.split(/;\s*\n/).filter((text) => text.trim())) {
  rows = (await connection.runAndReadAll(statement)).getRowObjectsJson();
}
const told = rows.map(({site, model, events, agreeing, verdict}) => [site, model, Number(events), Number(agreeing), verdict]);
const wanted = JSON.parse(readFileSync(report, 'utf8')).sites.flatMap(({site, models}) =>
    models.map(({model, agreement, verdict}) => [site, model, agreement.events, agreement.hits, verdict]));
const sorted = (list) => list.map((row) => JSON.stringify(row)).sort();
assert.deepStrictEqual(sorted(told), sorted(wanted));
const kinds = new Set(told.map((row) => row[4]));
assert.deepStrictEqual([...kinds].sort(), ['INCONCLUSIVE', 'NOT YET', 'PROMOTE'], 'the log has sites of each verdict');
console.log(`${told.length} sites agree`);
