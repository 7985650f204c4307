#pragma once
// Questions a model is asked about a small shop, written as PostgreSQL answers them, and the shop
// they ask about. The guard must let every one through, and each must run: a guard that refuses
// an honest question is as wrong as one that lets a write through.

namespace qortest {

inline constexpr const char* kAnalyticSchema = R"(
  CREATE TABLE customers (id integer PRIMARY KEY, name text NOT NULL, country text,
    signed_up date);
  CREATE TABLE products (id integer PRIMARY KEY, name text, category text, price numeric(10, 2),
    tags text[]);
  CREATE TABLE orders (id integer PRIMARY KEY, customer_id integer REFERENCES customers,
    ordered_at timestamptz, status text, details jsonb);
  CREATE TABLE order_lines (order_id integer REFERENCES orders,
    product_id integer REFERENCES products, quantity integer, PRIMARY KEY (order_id, product_id));
  CREATE TABLE employees (id integer PRIMARY KEY, name text, manager_id integer REFERENCES employees,
    salary numeric);
  INSERT INTO customers VALUES (1, 'Ada', 'UK', '2023-05-01'), (2, 'Linus', 'FI', '2023-07-12'),
    (3, 'Grace', 'US', '2024-01-03'), (4, 'Alan', 'UK', NULL);
  INSERT INTO products VALUES (1, 'kettle', 'kitchen', 25.50, '{steel,electric}'),
    (2, 'mug', 'kitchen', 6.00, '{ceramic}'), (3, 'lamp', 'living', 120.00, '{electric}');
  INSERT INTO orders VALUES
    (1, 1, '2024-01-02 10:00+00', 'shipped', '{"items": [{"sku": "K1"}, {"sku": "M2"}]}'),
    (2, 1, '2024-01-20 16:30+00', 'open', '{"items": [{"sku": "L3"}]}'),
    (3, 2, '2024-01-05 09:15+00', 'shipped', '{"items": []}'),
    (4, 3, '2024-02-11 12:00+00', 'cancelled', '{"items": [{"sku": "M2"}]}');
  INSERT INTO order_lines VALUES (1, 1, 1), (1, 2, 4), (2, 3, 1), (3, 2, 2), (4, 2, 1);
  INSERT INTO employees VALUES (1, 'Eve', NULL, 9000), (2, 'Bob', 1, 5000), (3, 'Carol', 1, 5500),
    (4, 'Dan', 2, 4000);
)";

inline constexpr const char* kAnalyticQueries[] = {
    "SELECT count(*) FROM customers",
    "SELECT country, count(*) AS n FROM customers GROUP BY country ORDER BY n DESC, country",
    R"(WITH spent AS (
         SELECT o.customer_id, sum(l.quantity * p.price) AS total
         FROM orders o JOIN order_lines l ON l.order_id = o.id JOIN products p ON p.id = l.product_id
         GROUP BY o.customer_id)
       SELECT c.name, s.total FROM spent s JOIN customers c ON c.id = s.customer_id
       ORDER BY s.total DESC LIMIT 5)",
    R"(WITH RECURSIVE chain AS (
         SELECT id, name, manager_id, 1 AS depth FROM employees WHERE manager_id IS NULL
         UNION ALL
         SELECT e.id, e.name, e.manager_id, c.depth + 1 FROM employees e JOIN chain c
           ON e.manager_id = c.id)
       SELECT * FROM chain ORDER BY depth, id)",
    "SELECT name, salary, rank() OVER (ORDER BY salary DESC) FROM employees",
    R"(SELECT customer_id, ordered_at, count(*) OVER (PARTITION BY customer_id ORDER BY ordered_at
         ROWS BETWEEN UNBOUNDED PRECEDING AND CURRENT ROW) FROM orders)",
    "SELECT id, ordered_at - lag(ordered_at) OVER (ORDER BY ordered_at) AS gap FROM orders",
    R"(SELECT c.name, latest.ordered_at FROM customers c
       CROSS JOIN LATERAL (SELECT ordered_at FROM orders o WHERE o.customer_id = c.id
                           ORDER BY ordered_at DESC LIMIT 1) latest)",
    R"(SELECT d::date AS day, count(o.id) FROM generate_series(date '2024-01-01',
         date '2024-01-31', interval '1 day') AS d
       LEFT JOIN orders o ON o.ordered_at::date = d::date GROUP BY d ORDER BY d)",
    "SELECT tag, count(*) FROM products, unnest(tags) AS tag GROUP BY tag ORDER BY tag",
    "SELECT o.id, item->>'sku' AS sku FROM orders o, jsonb_array_elements(o.details->'items') item",
    R"(SELECT c.country, o.status, count(*) FROM orders o JOIN customers c ON c.id = o.customer_id
       GROUP BY GROUPING SETS ((c.country), (o.status), ()))",
    "SELECT category, name, sum(price) FROM products GROUP BY ROLLUP (category, name)",
    R"(SELECT c.country, o.status, count(*) FROM orders o JOIN customers c ON c.id = o.customer_id
       GROUP BY CUBE (c.country, o.status))",
    R"(SELECT count(*) FILTER (WHERE status = 'shipped') AS shipped,
              count(*) FILTER (WHERE status <> 'shipped') AS other FROM orders)",
    R"(SELECT DISTINCT ON (customer_id) customer_id, id, ordered_at FROM orders
       ORDER BY customer_id, ordered_at DESC)",
    "EXPLAIN SELECT * FROM orders WHERE customer_id = 1",
    "EXPLAIN ANALYZE SELECT count(*) FROM order_lines",
    "EXPLAIN (ANALYZE, BUFFERS, FORMAT JSON) SELECT * FROM products WHERE price > 10",
    "VALUES (1, 'one'), (2, 'two')",
    "TABLE products",
    "SHOW search_path",
    "SELECT country, string_agg(name, ', ' ORDER BY name) FROM customers GROUP BY country",
    "SELECT date_trunc('month', ordered_at) AS month, count(*) FROM orders GROUP BY 1 ORDER BY 1",
    R"(SELECT name, CASE WHEN price > 100 THEN 'high' WHEN price > 10 THEN 'mid' ELSE 'low' END
       AS band FROM products)",
    "SELECT name FROM customers WHERE id IN (SELECT customer_id FROM orders WHERE status = 'open')",
    R"(SELECT name FROM customers c
       WHERE NOT EXISTS (SELECT 1 FROM orders o WHERE o.customer_id = c.id))",
    R"(SELECT name, (SELECT count(*) FROM orders o WHERE o.customer_id = c.id) AS orders
       FROM customers c)",
    "SELECT country FROM customers UNION SELECT 'none' EXCEPT SELECT 'FI' ORDER BY 1",
    "SELECT percentile_cont(0.5) WITHIN GROUP (ORDER BY salary) FROM employees",
    "SELECT customer_id FROM orders GROUP BY customer_id HAVING count(*) > 1",
    R"(WITH pricey AS MATERIALIZED (SELECT * FROM products WHERE price > 10)
       SELECT count(*), array_agg(name ORDER BY name) FROM pricey)",
    "SELECT id, ntile(2) OVER (ORDER BY price), width_bucket(price, 0, 200, 4) FROM products",
    "SELECT name FROM products ORDER BY price DESC FETCH FIRST 1 ROWS WITH TIES",
    "SELECT * FROM ROWS FROM (generate_series(1, 3), unnest(ARRAY['a', 'b'])) AS t(n, letter)",
    R"(SELECT jsonb_build_object('name', name, 'country', coalesce(country, '?')),
              extract(year FROM signed_up), to_char(signed_up, 'YYYY-MM') FROM customers)",
    R"(SELECT table_name FROM information_schema.tables WHERE table_schema = 'public'
       ORDER BY table_name)",
    "SELECT pg_size_pretty(pg_total_relation_size('orders')), now() - interval '7 days'",
    "SELECT name FROM customers WHERE name ~* '^a' AND signed_up > current_date - 5000",
    // Comments and quotes that hold what would be refused, as text.
    R"(-- customers by country; DROP TABLE customers
       SELECT /* ; DELETE FROM orders; */ country, $$;INSERT INTO orders$$ AS note,
              $q$ it's; COMMIT $q$ AS more, 'SET ROLE x; --' AS quoted FROM customers)",
    "SELECT 1 AS one; /* between */ SELECT 2 AS two; -- after the last\n",
};

}  // namespace qortest
