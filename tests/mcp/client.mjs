// The official MCP client drives `qorchat --mcp`: the tools it lists, a call of each, refused
// writes, and a cancelled query whose statement stops. Run as
//   node client.mjs QORCHAT_BINARY DATABASE [TABLE]
// where DATABASE is an SQLite file or a PostgreSQL connection string and TABLE a table it holds
// (customers by default). Exits non-zero on the first failed check.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const [binary, database, table = 'customers'] = process.argv.slice(2);
if (!binary || !database) {
  console.error('usage: node client.mjs QORCHAT_BINARY DATABASE [TABLE]');
  process.exit(2);
}

const client = new Client({ name: 'qorchat-tests', version: '1.0.0' });
await client.connect(new StdioClientTransport({
  command: binary,
  args: ['--mcp', '--db', database, '--statement-timeout', '120'],
  stderr: 'inherit',
}));

const call = (name, args) => client.callTool({ name, arguments: args });
const text = (result) => result.content.map((item) => item.text).join('');
const rowCount = async () =>
  (await call('query', { sql: `SELECT count(*) FROM ${table}` })).structuredContent.rows[0][0];

test('the server names itself and lists five read-only tools with their schemas', async () => {
  assert.equal(client.getServerVersion().name, 'qorchat');
  assert.deepEqual(client.getServerCapabilities().tools, { listChanged: false });
  const { tools } = await client.listTools();
  assert.deepEqual(tools.map((tool) => tool.name).sort(),
    ['describe', 'explain', 'list_tables', 'query', 'schema']);
  for (const tool of tools) {
    assert.equal(tool.inputSchema.type, 'object', tool.name);
    assert.equal(tool.inputSchema.additionalProperties, false, tool.name);
    assert.equal(tool.annotations.readOnlyHint, true, tool.name);
    assert.equal(tool.annotations.destructiveHint, false, tool.name);
    assert.ok(tool.description.length > 40, tool.name);
  }
  const query = tools.find((tool) => tool.name === 'query');
  assert.deepEqual(query.inputSchema.required, ['sql']);
  assert.deepEqual(query.outputSchema.required, ['columns', 'rows', 'row_count', 'truncated']);
});

test('each tool answers about the database', async () => {
  assert.match(text(await call('list_tables', {})), new RegExp(`\\b${table} \\(table`));
  const described = await call('describe', { names: [table, 'no_such_table'] });
  assert.ok(!described.isError);
  assert.match(text(described), new RegExp(`CREATE TABLE (\`\\w+\`\\.)?\`${table}\``));
  assert.match(text(described), /Referenced by: .*orders/);
  assert.match(text(described), /'no_such_table'/);
  assert.equal((await call('describe', { names: ['no_such_table'] })).isError, true);
  assert.match(text(await call('schema', { question: `${table} and their orders` })),
    /CREATE TABLE/);

  const result = await call('query', { sql: `SELECT * FROM ${table} ORDER BY 1`, max_rows: 2 });
  assert.ok(!result.isError, text(result));
  const { columns, rows, row_count: count, truncated } = result.structuredContent;
  assert.ok(columns.length > 1);
  assert.equal(rows.length, 2);
  assert.ok(count > 2 && truncated);
  assert.match(text(result), new RegExp(`first 2 of ${count} rows`));
  const nulls = await call('query', { sql: 'SELECT NULL AS missing' });
  assert.deepEqual(nulls.structuredContent.rows, [[null]]);

  const plan = await call('explain', { sql: `SELECT * FROM ${table} WHERE 1 = 1` });
  assert.ok(!plan.isError && text(plan).length > 0, text(plan));
  const bad = await call('query', { sql: 'SELECT', max_rows: 5000 });
  assert.equal(bad.isError, true);
  assert.match(text(bad), /max_rows/);
});

test('writes, transaction control and role switches are refused; nothing changes', async () => {
  const before = await rowCount();
  const attempts = [
    `INSERT INTO ${table} SELECT * FROM ${table}`,
    `BEGIN; DELETE FROM ${table}; COMMIT`,
    'SET ROLE postgres',
    `/* just a look */ DELETE FROM ${table}`,
    `SELECT 1; DROP TABLE ${table}`,
  ];
  for (const sql of attempts) {
    const result = await call('query', { sql });
    assert.equal(result.isError, true, sql);
    assert.ok(text(result).length > 0, sql);
  }
  assert.match(text(await call('query', { sql: attempts[0] })), /refused/i);
  assert.equal(await rowCount(), before);
});

test('a cancelled query stops, and the next call is answered at once', async () => {
  const endless = 'WITH RECURSIVE r(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM r) ' +
    'SELECT count(*) FROM r';
  const started = Date.now();
  await assert.rejects(client.callTool({ name: 'query', arguments: { sql: endless } }, undefined,
    { timeout: 1000 }), /timed out/i);
  const next = await call('query', { sql: 'SELECT 1 AS one' });
  assert.deepEqual(next.structuredContent.rows, [['1']]);
  assert.ok(Date.now() - started < 10000, 'the cancelled statement went on');
});

test('the session ends when the client leaves', async () => {
  await client.close();
});
