import 'package:flutter/material.dart';

class Counter extends StatefulWidget {
  const Counter({super.key});

  @override
  State<Counter> createState() => _CounterState();
}

class _CounterState extends State<Counter> {
  int _count = 0;

  void _increment() => setState(() => _count++);

  @override
  Widget build(BuildContext context) {
    return TextButton(
      onPressed: _increment,
      child: Text('Pressed $_count times'),
    );
  }
}

Future<void> main() async {
  final values = <int>[1, 2, 3];
  print(values.map((v) => v * 2).toList());
}
